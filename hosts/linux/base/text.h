// Texts as a message bus and the settings take them. Pure functions, any thread.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "common/text.h"

namespace nuvio::host {

// The text with every byte that is not part of well-formed UTF-8, every NUL and every noncharacter
// replaced by U+FFFD: what a message bus accepts as a string.
std::string to_utf8(std::string_view text);

// True for well-formed UTF-8 without control characters and noncharacters.
bool is_printable_utf8(std::string_view text);

// A whole number in plain decimal from 0 to 100, nothing before or behind it.
std::optional<int> to_percent(std::string_view text);

// The mute state as a message, and as the command for it; none for any other text.
constexpr const char* mute_text(bool muted) {
    return muted ? "MUTE" : "UNMUTE";
}
std::optional<bool> to_muted(std::string_view text);

// The name of a systemd service or target.
bool is_unit_name(std::string_view text);

// A place as a URL: one with a scheme as it is, an absolute path as "file://", else empty.
std::string to_url(std::string_view place);

}  // namespace nuvio::host
