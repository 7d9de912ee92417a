#include "common/url/url.h"

#include <curl/curl.h>

#include <algorithm>
#include <iterator>
#include <memory>

#include "common/number.h"
#include "common/percent_encoding.h"
#include "common/released_by.h"
#include "common/text.h"

namespace nuvio {

namespace {

using UrlHandle = std::unique_ptr<CURLU, ReleasedBy<curl_url_cleanup>>;
using Text = std::unique_ptr<char, ReleasedBy<curl_free>>;

constexpr size_t kMaxUrlBytes = 4096;

constexpr struct {
    std::string_view scheme;
    uint16_t port;
} kSchemes[] = {{"http", 80}, {"https", 443}, {"ws", 80}, {"wss", 443}};

// Empty: the URL has no such part.
std::string part(const UrlHandle& url, CURLUPart which) {
    char* text = nullptr;
    return curl_url_get(url.get(), which, &text, 0) == CURLUE_OK ? std::string(Text(text).get())
                                                                 : std::string();
}

// Libcurl would take "//host/path" and "host/path" without a base for http.
bool is_absolute(std::string_view text) {
    return text.find("://") != std::string_view::npos;
}

// Blanks and letters beyond ASCII, as playlists written by hand have them.
std::string with_plain_bytes(std::string_view reference) {
    std::string plain;
    for (const char c : reference) {
        const bool is_plain = c > ' ' && c < 0x7f;
        plain += is_plain ? std::string(1, c) : percent_encode(std::string_view(&c, 1));
    }
    return plain;
}

}  // namespace

std::optional<Url> split_url(const std::string& url) {
    const UrlHandle handle(curl_url());
    if (!handle || !is_absolute(url) || url.find('\0') != std::string::npos ||
        curl_url_set(handle.get(), CURLUPART_URL, url.c_str(), CURLU_NON_SUPPORT_SCHEME) !=
            CURLUE_OK) {
        return std::nullopt;
    }
    Url parts{part(handle, CURLUPART_SCHEME), part(handle, CURLUPART_HOST), 0,
              part(handle, CURLUPART_PATH),
              !(part(handle, CURLUPART_USER) + part(handle, CURLUPART_PASSWORD)).empty()};
    const auto* const scheme =
        std::ranges::find_if(kSchemes, [&](const auto& row) { return row.scheme == parts.scheme; });
    if (scheme == std::end(kSchemes)) {
        return std::nullopt;
    }
    if (parts.host.starts_with('[')) {
        const std::string zone = part(handle, CURLUPART_ZONEID);
        parts.host = parts.host.substr(1, parts.host.size() - 2) + (zone.empty() ? "" : "%") + zone;
    }
    parts.port = to_number<uint16_t>(part(handle, CURLUPART_PORT)).value_or(scheme->port);
    if (const std::string query = part(handle, CURLUPART_QUERY); !query.empty()) {
        parts.path += "?" + query;
    }
    return parts.host.empty() || parts.port == 0 ? std::nullopt : std::optional(std::move(parts));
}

std::optional<std::string> resolve_url(const std::string& base, std::string_view reference) {
    reference = trim(reference);
    const UrlHandle handle(curl_url());
    if (!handle || reference.empty() || reference.size() > kMaxUrlBytes) {
        return std::nullopt;
    }
    if (!base.empty() && curl_url_set(handle.get(), CURLUPART_URL, base.c_str(), 0) != CURLUE_OK) {
        return std::nullopt;
    }
    const std::string plain = with_plain_bytes(reference);
    if ((base.empty() && !is_absolute(plain)) ||
        curl_url_set(handle.get(), CURLUPART_URL, plain.c_str(), 0) != CURLUE_OK) {
        return std::nullopt;
    }
    const std::string scheme = part(handle, CURLUPART_SCHEME);
    if ((scheme != "http" && scheme != "https") || part(handle, CURLUPART_HOST).empty()) {
        return std::nullopt;
    }
    curl_url_set(handle.get(), CURLUPART_FRAGMENT, nullptr, 0);
    std::string url = part(handle, CURLUPART_URL);
    return url.empty() || url.size() > kMaxUrlBytes ? std::nullopt : std::optional(std::move(url));
}

bool same_origin(const std::string& a, const std::string& b) {
    const auto first = split_url(a);
    const auto second = split_url(b);
    return first && second && first->scheme == second->scheme && first->port == second->port &&
           equals_ignoring_case(first->host, second->host);
}

bool is_web_address(std::string_view text) {
    return starts_with_ignoring_case(text, "http://") ||
           starts_with_ignoring_case(text, "https://");
}

}  // namespace nuvio
