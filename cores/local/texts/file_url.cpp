#include "local/texts/file_url.h"

#include <utility>

#include "common/percent_encoding.h"
#include "common/text.h"

namespace local_core {

namespace {

constexpr std::string_view kFileScheme = "file://";

}  // namespace

bool is_file_url(std::string_view text) {
    return nuvio::starts_with_ignoring_case(text, kFileScheme);
}

bool is_remote_url(std::string_view text) {
    const size_t colon = text.find("://");
    return colon != std::string_view::npos && colon > 0 && text.find('/') == colon + 1 &&
           !is_file_url(text);
}

std::optional<std::string> path_from_file_url(std::string_view url) {
    if (!is_file_url(url)) {
        return std::nullopt;
    }
    url.remove_prefix(kFileScheme.size());
    const size_t slash = url.find('/');
    if (slash == std::string_view::npos) {
        return std::nullopt;
    }
    const std::string_view host = url.substr(0, slash);
    if (!host.empty() && !nuvio::equals_ignoring_case(host, "localhost")) {
        return std::nullopt;
    }
    auto path = nuvio::percent_decode(url.substr(slash));
    return path && path->find('\0') == std::string::npos ? std::move(path) : std::nullopt;
}

std::string file_url_from_path(std::string_view path) {
    return std::string(kFileScheme) + nuvio::percent_encode(path);
}

}  // namespace local_core
