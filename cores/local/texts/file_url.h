// file:// URLs. Pure functions; any thread, any bytes.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace local_core {

// True for "file:" followed by "//", in any letter case.
bool is_file_url(std::string_view text);
// True for any other "scheme://".
bool is_remote_url(std::string_view text);

// The path that a file:// URL names, percent-decoded; none when it names another host, is malformed
// or would contain a NUL.
std::optional<std::string> path_from_file_url(std::string_view url);
// `path` must be absolute.
std::string file_url_from_path(std::string_view path);

}  // namespace local_core
