#include "controller/discovery/announced.h"

#include <arpa/inet.h>
#include <netinet/in.h>

#include <cstring>

namespace nuvio::controller {

namespace {

// `address`: in the host's order. "This network", multicast, and what is reserved.
bool is_taken(in_addr_t address, bool is_on_loopback) {
    const in_addr_t net = address >> 24U;
    return net != 0 && net < 224 && (net != IN_LOOPBACKNET || is_on_loopback);
}

}  // namespace

std::string path_taken(const std::string& announced) {
    constexpr char kPlain[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789._~/-";
    return announced.starts_with('/') && announced.find_first_not_of(kPlain) == std::string::npos
               ? announced
               : "/";
}

bool is_address_taken(const std::string& address, bool is_on_loopback) {
    in_addr v4{};
    if (inet_pton(AF_INET, address.c_str(), &v4) == 1) {
        return is_taken(ntohl(v4.s_addr), is_on_loopback);
    }
    in6_addr v6{};
    if (inet_pton(AF_INET6, address.c_str(), &v6) != 1) {
        return false;
    }
    if (IN6_IS_ADDR_LOOPBACK(&v6)) {
        return is_on_loopback;
    }
    if (IN6_IS_ADDR_V4MAPPED(&v6) || IN6_IS_ADDR_V4COMPAT(&v6)) {
        std::memcpy(&v4, &v6.s6_addr[12], sizeof v4);
        return is_taken(ntohl(v4.s_addr), is_on_loopback);
    }
    return !IN6_IS_ADDR_MULTICAST(&v6) && !IN6_IS_ADDR_UNSPECIFIED(&v6);
}

}  // namespace nuvio::controller
