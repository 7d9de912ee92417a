// Small text helpers of the Linux host. Pure functions, any thread.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace nuvio::host {

// Without blanks, tabs and line ends at either side.
std::string_view trim(std::string_view text);

// The text with every byte that is not part of well-formed UTF-8, and every NUL, replaced by
// U+FFFD: what a message bus accepts as a string.
std::string to_utf8(std::string_view text);

// True for well-formed UTF-8 without control characters.
bool is_printable_utf8(std::string_view text);

// A whole number in plain decimal, sign allowed, nothing before or behind it.
std::optional<int> to_int(std::string_view text);

// The same, from 0 to 100.
std::optional<int> to_percent(std::string_view text);

// With each byte outside of a-z, A-Z, 0-9 and "-._~/" written as %XX; and back again, where a '%'
// that no two hex digits follow stays as it is.
std::string percent_encode(std::string_view text);
std::string percent_decode(std::string_view text);

// A place as a URL: one with a scheme as it is, an absolute path as "file://", else empty.
std::string to_url(std::string_view place);

}  // namespace nuvio::host
