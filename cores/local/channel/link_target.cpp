#include <algorithm>

#include "common/url/url.h"
#include "common/utf8.h"
#include "local/channel/link.h"

namespace local_core {

namespace {

constexpr size_t kMaxTokenBytes = size_t{8} * 1024;  // of a header of the handshake

}  // namespace

std::optional<LinkTarget> link_target(std::string_view url, std::string_view token,
                                      uint64_t expiry_s) {
    if (url.size() > kMaxUrlBytes || token.size() > kMaxTokenBytes ||
        std::ranges::any_of(token, nuvio::is_control)) {
        return std::nullopt;
    }
    auto parts = nuvio::split_url(std::string(url));
    const bool tls = parts && parts->scheme == "wss";
    if (!parts || (!tls && parts->scheme != "ws") || parts->has_user) {
        return std::nullopt;
    }
    return LinkTarget{tls,
                      std::move(parts->host),
                      parts->port,
                      std::move(parts->path),
                      std::string(token),
                      expiry_s,
                      {}};
}

}  // namespace local_core
