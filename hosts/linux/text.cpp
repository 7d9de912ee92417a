#include "text.h"

#include <charconv>
#include <cstdint>

namespace nuvio::host {

namespace {

constexpr char kReplacement[] = "\xEF\xBF\xBD";

bool is_continuation(unsigned char byte) {
    return (byte & 0xC0U) == 0x80U;
}

// U+FDD0 to U+FDEF, and the last two of each plane: well formed, but a message bus takes none.
bool is_noncharacter(std::string_view character) {
    const bool ends_plane = character.ends_with("\xBF\xBE") || character.ends_with("\xBF\xBF");
    if (character.size() == 3) {
        return (character[0] == '\xEF' && character[1] == '\xBF' && ends_plane) ||
               (character >= "\xEF\xB7\x90" && character <= "\xEF\xB7\xAF");
    }
    return character.size() == 4 && (static_cast<unsigned char>(character[1]) & 0x0FU) == 0x0F &&
           ends_plane;
}

// Bytes of the character at the front of `text` (not empty); 0 when it is not well formed or must
// not be sent. Overlong forms, surrogates and numbers above U+10FFFF are not well formed.
size_t character_length(std::string_view text) {
    const auto byte = [&](size_t index) { return static_cast<unsigned char>(text[index]); };
    const unsigned char lead = byte(0);
    if (lead < 0x80) {
        return 1;
    }
    const size_t length = lead >= 0xF0 ? 4 : lead >= 0xE0 ? 3 : 2;
    if (lead < 0xC2 || lead > 0xF4 || text.size() < length) {
        return 0;
    }
    for (size_t i = 1; i < length; ++i) {
        if (!is_continuation(byte(i))) {
            return 0;
        }
    }
    const unsigned char second = byte(1);
    const bool bad = (lead == 0xE0 && second < 0xA0) || (lead == 0xED && second > 0x9F) ||
                     (lead == 0xF0 && second < 0x90) || (lead == 0xF4 && second > 0x8F);
    return bad || is_noncharacter(text.substr(0, length)) ? 0 : length;
}

bool is_control(char c) {
    const auto byte = static_cast<unsigned char>(c);
    return byte < 0x20 || byte == 0x7F;
}

bool is_unreserved(char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
           std::string_view("-._~/").find(c) != std::string_view::npos;
}

}  // namespace

std::string_view trim(std::string_view text) {
    constexpr std::string_view kBlanks = " \t\r\n";
    const size_t first = text.find_first_not_of(kBlanks);
    if (first == std::string_view::npos) {
        return {};
    }
    return text.substr(first, text.find_last_not_of(kBlanks) - first + 1);
}

std::string to_utf8(std::string_view text) {
    std::string result;
    result.reserve(text.size());
    while (!text.empty()) {
        const size_t length = text.front() == '\0' ? 0 : character_length(text);
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
        const size_t length = character_length(text);
        if (length == 0 || is_control(text.front())) {
            return false;
        }
        text.remove_prefix(length);
    }
    return true;
}

std::optional<int> to_int(std::string_view text) {
    int number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    if (error != std::errc() || end != text.data() + text.size()) {
        return std::nullopt;
    }
    return number;
}

std::optional<int> to_percent(std::string_view text) {
    const std::optional<int> number = to_int(text);
    return number && *number >= 0 && *number <= 100 ? number : std::nullopt;
}

std::string percent_encode(std::string_view text) {
    constexpr char kHex[] = "0123456789ABCDEF";
    std::string result;
    for (const char c : text) {
        if (is_unreserved(c)) {
            result += c;
        } else {
            const auto byte = static_cast<unsigned char>(c);
            result += {'%', kHex[byte >> 4U], kHex[byte & 0x0FU]};
        }
    }
    return result;
}

std::string percent_decode(std::string_view text) {
    std::string result;
    while (!text.empty()) {
        unsigned byte = 0;
        const char* digits = text.data() + 1;
        if (text.size() >= 3 && text.front() == '%' &&
            std::from_chars(digits, digits + 2, byte, 16).ptr == digits + 2) {
            result += static_cast<char>(byte);
            text.remove_prefix(3);
        } else {
            result += text.front();
            text.remove_prefix(1);
        }
    }
    return result;
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
