#include "base/text.h"

#include <cstddef>

#include "common/number.h"
#include "common/percent_encoding.h"
#include "common/utf8.h"

namespace nuvio::host {

namespace {

constexpr char kReplacement[] = "\xEF\xBF\xBD";

// Bytes of the character at the front of `text` (not empty); 0 when it must not be sent.
size_t sendable_length(std::string_view text) {
    const size_t length = character_length(text);
    return is_noncharacter(text.substr(0, length)) ? 0 : length;
}

}  // namespace

std::string to_utf8(std::string_view text) {
    std::string result;
    result.reserve(text.size());
    while (!text.empty()) {
        const size_t length = text.front() == '\0' ? 0 : sendable_length(text);
        if (length == 0) {
            result += kReplacement;
            text.remove_prefix(1);
        } else {
            result += text.substr(0, length);
            text.remove_prefix(length);
        }
    }
    return result;
}

bool is_printable_utf8(std::string_view text) {
    while (!text.empty()) {
        const size_t length = sendable_length(text);
        if (length == 0 || is_control_character(text.substr(0, length))) {
            return false;
        }
        text.remove_prefix(length);
    }
    return true;
}

std::optional<int> to_percent(std::string_view text) {
    const std::optional<int> number = to_number<int>(text);
    return number && *number >= 0 && *number <= 100 ? number : std::nullopt;
}

std::optional<bool> to_muted(std::string_view text) {
    for (const bool muted : {true, false}) {
        if (text == mute_text(muted)) {
            return muted;
        }
    }
    return std::nullopt;
}

bool is_unit_name(std::string_view text) {
    const auto in_names = [](char c) {
        return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
               std::string_view(":_.\\@-").find(c) != std::string_view::npos;
    };
    return (text.ends_with(".service") || text.ends_with(".target")) && text.front() != '-' &&
           std::ranges::all_of(text, in_names);
}

std::string to_url(std::string_view place) {
    if (place.find("://") != std::string_view::npos) {
        return to_utf8(place);
    }
    if (!place.starts_with('/')) {
        return {};
    }
    return "file://" + percent_encode(place);
}

}  // namespace nuvio::host
