// Texts that come from files and controllers: made fit for display, and file:// URLs.
//
// Pure functions; any thread. Input may be any bytes.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace local_core {

// Valid UTF-8 on one line: what is no UTF-8 is read as Latin-1, control characters become blanks,
// blanks at both ends go.
std::string display_text(std::string_view raw);

// The text's beginning, in at most so many bytes; no character of UTF-8 is cut in two.
std::string beginning(std::string_view text, size_t max_bytes);

// True for "file:" followed by "//", in any letter case.
bool is_file_url(std::string_view text);
// True for any other "scheme://".
bool is_remote_url(std::string_view text);

// The path that a file:// URL names, percent-decoded; none when it names another host, is malformed
// or would contain a NUL.
std::optional<std::string> path_from_file_url(std::string_view url);
// `path` must be absolute.
std::string file_url_from_path(std::string_view path);

// Equal but for the case of ASCII letters.
bool equals_ignoring_case(std::string_view a, std::string_view b);

}  // namespace local_core
