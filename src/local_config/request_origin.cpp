#include "local_config/request_origin.h"

#include <arpa/inet.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <climits>
#include <string>
#include <string_view>

#include "common/text.h"

namespace {

constexpr std::array<std::string_view, 6> HOUSE_DOMAINS = {
    ".local", ".lan", ".home", ".home.arpa", ".internal", ".localdomain"};

// Of "name:8000" or "[fe80::1]:8000" what stands before the port.
std::string_view without_port(std::string_view host) {
    if (host.starts_with('[')) {
        return host.substr(0, host.find(']') + 1);
    }
    return host.substr(0, host.find(':'));
}

bool is_address(std::string_view name) {
    in_addr address{};
    return name.starts_with('[') || inet_pton(AF_INET, std::string(name).c_str(), &address) == 1;
}

bool is_own_name(std::string_view name) {
    std::array<char, HOST_NAME_MAX + 1> own{};
    return gethostname(own.data(), own.size() - 1) == 0 &&
           nuvio::equals_ignoring_case(name, own.data());
}

bool ends_with(std::string_view name, std::string_view domain) {
    return name.size() > domain.size() &&
           nuvio::equals_ignoring_case(name.substr(name.size() - domain.size()), domain);
}

bool is_of_the_house(std::string_view host) {
    std::string_view name = without_port(host);
    if (name.ends_with('.')) {
        name.remove_suffix(1);
    }
    return is_address(name) || name.find('.') == std::string_view::npos || is_own_name(name) ||
           std::ranges::any_of(HOUSE_DOMAINS,
                               [name](std::string_view domain) { return ends_with(name, domain); });
}

}  // namespace

bool is_from_a_foreign_page(const char* host, const char* origin, const char* fetch_site) {
    if (host != nullptr && !is_of_the_house(host)) {
        return true;
    }
    if (fetch_site != nullptr && nuvio::equals_ignoring_case(fetch_site, "cross-site")) {
        return true;
    }
    return origin != nullptr &&
           (host == nullptr || !nuvio::equals_ignoring_case(origin, std::string("http://") + host));
}
