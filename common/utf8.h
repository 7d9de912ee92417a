// Texts of unknown origin as UTF-8. Pure functions, any thread; input may be any bytes.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace nuvio {

inline bool is_control(char c) {
    const auto byte = static_cast<uint8_t>(c);
    return byte < 0x20 || byte == 0x7f;
}

// Bytes of the character at the start of `text`; 0 when `text` is empty or starts with nothing well
// formed. Overlong forms, surrogates and numbers above U+10FFFF are not well formed.
inline size_t character_length(std::string_view text) {
    struct Lead {
        uint8_t first, last;  // lead bytes
        size_t length;
        uint8_t second_min, second_max;  // excludes overlong forms, surrogates, beyond U+10FFFF
    };
    static constexpr Lead kLeads[] = {
        {0x00, 0x7f, 1, 0x00, 0x00}, {0xc2, 0xdf, 2, 0x80, 0xbf}, {0xe0, 0xe0, 3, 0xa0, 0xbf},
        {0xe1, 0xec, 3, 0x80, 0xbf}, {0xed, 0xed, 3, 0x80, 0x9f}, {0xee, 0xef, 3, 0x80, 0xbf},
        {0xf0, 0xf0, 4, 0x90, 0xbf}, {0xf1, 0xf3, 4, 0x80, 0xbf}, {0xf4, 0xf4, 4, 0x80, 0x8f},
    };
    const auto byte = [&](size_t i) { return static_cast<uint8_t>(text[i]); };
    const auto* lead = std::ranges::find_if(kLeads, [&](const Lead& row) {
        return !text.empty() && byte(0) >= row.first && byte(0) <= row.last;
    });
    if (lead == std::end(kLeads) || text.size() < lead->length) {
        return 0;
    }
    for (size_t i = 1; i < lead->length; ++i) {
        const uint8_t min = i == 1 ? lead->second_min : uint8_t{0x80};
        const uint8_t max = i == 1 ? lead->second_max : uint8_t{0xbf};
        if (byte(i) < min || byte(i) > max) {
            return 0;
        }
    }
    return lead->length;
}

// C0, DEL or C1, which a terminal obeys. `character` is one well-formed character.
inline bool is_control_character(std::string_view character) {
    return character.size() == 1 ? is_control(character.front())
                                 : character >= "\xC2\x80" && character <= "\xC2\x9F";
}

// U+FDD0 to U+FDEF, and the last two of each plane: well formed, but a message bus takes none.
// `character` is one well-formed character.
inline bool is_noncharacter(std::string_view character) {
    const bool ends_plane = character.ends_with("\xBF\xBE") || character.ends_with("\xBF\xBF");
    if (character.size() == 3) {
        return (character.starts_with("\xEF\xBF") && ends_plane) ||
               (character >= "\xEF\xB7\x90" && character <= "\xEF\xB7\xAF");
    }
    return character.size() == 4 && (static_cast<uint8_t>(character[1]) & 0x0fU) == 0x0f &&
           ends_plane;
}

inline std::string_view without_byte_order_mark(std::string_view text) {
    constexpr std::string_view kMark = "\xef\xbb\xbf";
    return text.starts_with(kMark) ? text.substr(kMark.size()) : text;
}

inline bool is_utf8(std::string_view text) {
    while (!text.empty()) {
        const size_t length = character_length(text);
        if (length == 0) {
            return false;
        }
        text.remove_prefix(length);
    }
    return true;
}

// The text's beginning, in at most so many bytes; no character is cut in two.
inline std::string_view beginning(std::string_view text, size_t max_bytes) {
    size_t end = std::min(text.size(), max_bytes);
    while (end > 0 && end < text.size() && (static_cast<uint8_t>(text[end]) & 0xc0U) == 0x80) {
        --end;
    }
    return text.substr(0, end);
}

// The text as a terminal, a log or a display takes it: on one line of well-formed UTF-8. Each
// control character becomes a blank, each byte that is no part of a character U+FFFD.
inline std::string printable(std::string_view text) {
    std::string out;
    out.reserve(text.size());
    while (!text.empty()) {
        const size_t length = character_length(text);
        const std::string_view character = text.substr(0, length);
        out += length == 0 ? "\xEF\xBF\xBD" : is_control_character(character) ? " " : character;
        text.remove_prefix(std::max<size_t>(length, 1));
    }
    return out;
}

inline std::string utf8_from_latin1(std::string_view text) {
    std::string out;
    for (const char c : text) {
        const auto byte = static_cast<uint8_t>(c);
        if (byte < 0x80) {
            out += c;
        } else {
            out += static_cast<char>(0xc0 | (byte >> 6));
            out += static_cast<char>(0x80 | (byte & 0x3f));
        }
    }
    return out;
}

}  // namespace nuvio
