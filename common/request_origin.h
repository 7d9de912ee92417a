// Whether an HTTP request comes from a client in the house or from a web page of elsewhere that a
// browser in the house shows. Pure but for the machine's own name; any thread.
#pragma once

#include <arpa/inet.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <climits>
#include <string>
#include <string_view>

#include "common/text.h"

namespace nuvio {

namespace request_origin {

inline constexpr std::array<std::string_view, 6> kHouseDomains = {
    ".local", ".lan", ".home", ".home.arpa", ".internal", ".localdomain"};

// Of "name:8000" or "[fe80::1]:8000" what stands before the port.
inline std::string_view without_port(std::string_view host) {
    if (host.starts_with('[')) {
        return host.substr(0, host.find(']') + 1);
    }
    return host.substr(0, host.find(':'));
}

inline bool is_address(std::string_view name) {
    in_addr address{};
    return name.starts_with('[') || inet_pton(AF_INET, std::string(name).c_str(), &address) == 1;
}

inline bool is_own_name(std::string_view name) {
    std::array<char, HOST_NAME_MAX + 1> own{};
    return gethostname(own.data(), own.size() - 1) == 0 && equals_ignoring_case(name, own.data());
}

inline bool ends_with(std::string_view name, std::string_view domain) {
    return name.size() > domain.size() && ends_with_ignoring_case(name, domain);
}

inline bool is_of_the_house(std::string_view host) {
    std::string_view name = without_port(host);
    if (name.ends_with('.')) {
        name.remove_suffix(1);
    }
    return is_address(name) || name.find('.') == std::string_view::npos || is_own_name(name) ||
           std::ranges::any_of(kHouseDomains,
                               [name](std::string_view domain) { return ends_with(name, domain); });
}

}  // namespace request_origin

// Whether the `Host` is that name, with any port. False where either is absent.
inline bool is_asked_by(const char* host, std::string_view name) {
    return host != nullptr && !name.empty() &&
           equals_ignoring_case(request_origin::without_port(host), name);
}

// True for what only a browser on another site's behalf sends: an `Origin` that is not the server's
// own, a `Sec-Fetch-Site` of "cross-site", or a `Host` that a name server outside of the house
// could have given out, as after DNS rebinding. Addresses, names without a dot, the machine's own
// name and names in domains that no public name server knows (.local, .lan, ...) are the server's;
// so is `public_name`, where it is not empty: a name that a TLS proxy before the server goes by.
// Null: the header is absent, as in a controller's request.
inline bool is_from_a_foreign_page(const char* host, const char* origin, const char* fetch_site,
                                   std::string_view public_name = {}) {
    const bool is_public = is_asked_by(host, public_name);
    if (host != nullptr && !is_public && !request_origin::is_of_the_house(host)) {
        return true;
    }
    if (fetch_site != nullptr && equals_ignoring_case(fetch_site, "cross-site")) {
        return true;
    }
    return origin != nullptr &&
           (host == nullptr ||
            (!equals_ignoring_case(origin, std::string("http://") + host) &&
             !(is_public && equals_ignoring_case(origin, std::string("https://") + host))));
}

}  // namespace nuvio
