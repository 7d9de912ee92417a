#include "local/network/url.h"

#include <curl/curl.h>

#include <array>
#include <memory>

#include "common/percent_encoding.h"
#include "common/released_by.h"
#include "common/text.h"
#include "common/utf8.h"

namespace local_core {

namespace {

using UrlHandle = std::unique_ptr<CURLU, nuvio::ReleasedBy<curl_url_cleanup>>;
using Text = std::unique_ptr<char, nuvio::ReleasedBy<curl_free>>;

constexpr size_t kMaxUrlBytes = 4096;

std::optional<std::string> part(CURLU* url, CURLUPart which) {
    char* text = nullptr;
    if (curl_url_get(url, which, &text, CURLU_DEFAULT_PORT) != CURLUE_OK) {
        return std::nullopt;
    }
    return std::string(Text(text).get());
}

// Blanks and letters beyond ASCII, as playlists written by hand have them.
std::string with_plain_bytes(std::string_view reference) {
    std::string plain;
    for (const char c : reference) {
        const bool is_plain = c > ' ' && c < 0x7f;
        plain += is_plain ? std::string(1, c) : nuvio::percent_encode(std::string_view(&c, 1));
    }
    return plain;
}

std::optional<std::array<std::string, 3>> origin(const std::string& url) {
    const UrlHandle handle(curl_url());
    if (!handle || curl_url_set(handle.get(), CURLUPART_URL, url.c_str(), 0) != CURLUE_OK) {
        return std::nullopt;
    }
    const auto scheme = part(handle.get(), CURLUPART_SCHEME);
    const auto host = part(handle.get(), CURLUPART_HOST);
    const auto port = part(handle.get(), CURLUPART_PORT);
    if (!scheme || !host || !port) {
        return std::nullopt;
    }
    return std::array{*scheme, *host, *port};
}

}  // namespace

std::optional<std::string> resolve_url(const std::string& base, std::string_view reference) {
    reference = nuvio::trim(reference);
    const UrlHandle handle(curl_url());
    if (!handle || reference.empty() || reference.size() > kMaxUrlBytes) {
        return std::nullopt;
    }
    if (!base.empty() && curl_url_set(handle.get(), CURLUPART_URL, base.c_str(), 0) != CURLUE_OK) {
        return std::nullopt;
    }
    // Libcurl would take "//host/path" and "host/path" without a base for http.
    const std::string plain = with_plain_bytes(reference);
    const bool is_absolute = plain.find("://") != std::string::npos;
    if ((base.empty() && !is_absolute) ||
        curl_url_set(handle.get(), CURLUPART_URL, plain.c_str(), 0) != CURLUE_OK) {
        return std::nullopt;
    }
    const auto scheme = part(handle.get(), CURLUPART_SCHEME);
    const auto host = part(handle.get(), CURLUPART_HOST);
    if (!scheme || (*scheme != "http" && *scheme != "https") || !host || host->empty()) {
        return std::nullopt;
    }
    curl_url_set(handle.get(), CURLUPART_FRAGMENT, nullptr, 0);
    char* text = nullptr;
    if (curl_url_get(handle.get(), CURLUPART_URL, &text, 0) != CURLUE_OK) {
        return std::nullopt;
    }
    std::string url = Text(text).get();
    return url.size() > kMaxUrlBytes ? std::nullopt : std::optional(std::move(url));
}

bool same_origin(const std::string& a, const std::string& b) {
    const auto first = origin(a);
    const auto second = origin(b);
    if (!first || !second) {
        return false;
    }
    for (size_t i = 0; i < first->size(); ++i) {
        if (!nuvio::equals_ignoring_case((*first)[i], (*second)[i])) {
            return false;
        }
    }
    return true;
}

}  // namespace local_core
