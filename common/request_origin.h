// Whether an HTTP request comes from a client in the house or from a web page of elsewhere that a
// browser in the house shows. Pure but for the machine's own name and the domains that its resolver
// looks names up in; any thread.
#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <resolv.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <climits>
#include <span>
#include <string>
#include <string_view>

#include "common/text.h"

namespace nuvio {

namespace request_origin {

inline constexpr std::array<std::string_view, 7> kHouseDomains = {
    ".local", ".lan", ".home", ".home.arpa", ".internal", ".localdomain", ".localhost"};

// Of "name:8000" or "[fe80::1]:8000" what stands before the port.
inline std::string_view without_port(std::string_view host) {
    const size_t colon = host.rfind(':');
    const bool is_inside = host.find(']', std::min(colon, host.size())) != std::string_view::npos;
    return is_inside ? host : host.substr(0, colon);
}

inline bool is_address(std::string_view name) {
    in6_addr address{};
    if (!name.starts_with('[') || !name.ends_with(']')) {
        return inet_pton(AF_INET, std::string(name).c_str(), &address) == 1;
    }
    name = name.substr(1, name.size() - 2);
    name = name.substr(0, name.find('%'));  // an interface
    return inet_pton(AF_INET6, std::string(name).c_str(), &address) == 1;
}

inline bool is_own_name(std::string_view name) {
    std::array<char, HOST_NAME_MAX + 1> own{};
    return gethostname(own.data(), own.size() - 1) == 0 && equals_ignoring_case(name, own.data());
}

inline bool ends_with(std::string_view name, std::string_view domain) {
    return name.size() > domain.size() && ends_with_ignoring_case(name, domain);
}

// In a domain of the network that the machine is in, as its router or its owner told the resolver.
inline bool is_in_own_domain(std::string_view name) {
    struct __res_state resolver {};
    if (res_ninit(&resolver) != 0) {
        return false;
    }
    const bool is_own = std::ranges::any_of(resolver.dnsrch, [name](const char* domain) {
        return domain != nullptr && *domain != '\0' && ends_with(name, std::string(".") + domain);
    });
    res_nclose(&resolver);
    return is_own;
}

inline std::string_view name_of(std::string_view host) {
    const std::string_view name = without_port(host);
    return name.substr(0, name.size() - (name.ends_with('.') ? 1 : 0));
}

inline bool is_one_of(std::string_view name, std::span<const std::string> own_names) {
    return std::ranges::any_of(own_names, [name](const std::string& own) {
        return own.starts_with('.') ? ends_with(name, own)
                                    : !own.empty() && equals_ignoring_case(name, own);
    });
}

inline bool is_of_the_house(std::string_view name) {
    return is_address(name) || name.find('.') == std::string_view::npos || is_own_name(name) ||
           std::ranges::any_of(
               kHouseDomains,
               [name](std::string_view domain) { return ends_with(name, domain); }) ||
           is_in_own_domain(name);
}

}  // namespace request_origin

// Whether the `Host` is that name, with any port. False where either is absent.
inline bool is_asked_by(const char* host, const std::string& name) {
    return host != nullptr &&
           request_origin::is_one_of(request_origin::name_of(host), std::span(&name, 1));
}

// Null, or the name of the header that only a browser on another site's behalf sends: an `Origin`
// that is not the server's own, a `Sec-Fetch-Site` of "cross-site", or a `Host` that a name server
// outside of the house could have given out, as after DNS rebinding. Addresses, names without a
// dot, the machine's own name and names in domains that no public name server knows (.local, .lan,
// ...) or that the machine's resolver looks names up in are the server's. So are `own_names`, by
// which a TLS proxy may stand before the server; one that begins with a dot is a domain, an empty
// one none. Null: the header is absent, as in a controller's request.
inline const char* foreign_header(const char* host, const char* origin, const char* fetch_site,
                                  std::span<const std::string> own_names) {
    const std::string_view name = host == nullptr ? "" : request_origin::name_of(host);
    const bool is_public = request_origin::is_one_of(name, own_names);
    if (host != nullptr && !is_public && !request_origin::is_of_the_house(name)) {
        return "Host";
    }
    if (fetch_site != nullptr && equals_ignoring_case(fetch_site, "cross-site")) {
        return "Sec-Fetch-Site";
    }
    const bool is_own =
        origin == nullptr ||
        (host != nullptr &&
         (equals_ignoring_case(origin, std::string("http://") + host) ||
          (is_public && equals_ignoring_case(origin, std::string("https://") + host))));
    return is_own ? nullptr : "Origin";
}

}  // namespace nuvio
