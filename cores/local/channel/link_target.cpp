#include <algorithm>

#include "common/number.h"
#include "common/text.h"
#include "common/utf8.h"
#include "local/channel/link.h"

namespace local_core {

namespace {

constexpr size_t kMaxTokenBytes = size_t{8} * 1024;  // of a header of the handshake

bool fits_a_header(std::string_view text) {
    return std::none_of(text.begin(), text.end(), nuvio::is_control);
}

}  // namespace

std::optional<LinkTarget> link_target(std::string_view url, std::string_view token,
                                      uint64_t expiry_s) {
    LinkTarget target;
    target.tls = nuvio::starts_with_ignoring_case(url, "wss://");
    if ((!target.tls && !nuvio::starts_with_ignoring_case(url, "ws://")) ||
        url.size() > kMaxUrlBytes || token.size() > kMaxTokenBytes || !fits_a_header(token) ||
        !fits_a_header(url) || url.find(' ') != std::string_view::npos) {
        return std::nullopt;
    }
    url.remove_prefix(target.tls ? 6 : 5);
    url = url.substr(0, url.find('#'));
    const size_t path = std::min(url.find_first_of("/?"), url.size());
    target.path = url.substr(path);
    if (!target.path.starts_with('/')) {
        target.path.insert(0, "/");
    }
    std::string_view authority = url.substr(0, path);
    // An address of IPv6 has colons of its own, and brackets around them.
    const bool bracketed = authority.starts_with('[');
    const size_t host_end =
        bracketed ? authority.find(']') : std::min(authority.find(':'), authority.size());
    if (host_end == std::string_view::npos || authority.find('@') != std::string_view::npos) {
        return std::nullopt;
    }
    target.host = authority.substr(bracketed ? 1 : 0, host_end - (bracketed ? 1 : 0));
    authority.remove_prefix(host_end + (bracketed ? 1 : 0));
    target.port = target.tls ? 443 : 80;
    if (!authority.empty()) {
        const auto port = nuvio::to_number<uint16_t>(authority.substr(1));
        if (authority.front() != ':' || !port) {
            return std::nullopt;
        }
        target.port = *port;
    }
    if (target.host.empty() || target.port == 0) {
        return std::nullopt;
    }
    target.token = token;
    target.expiry_s = expiry_s;
    return target;
}

}  // namespace local_core
