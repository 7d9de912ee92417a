// Percent-encoding, as URLs have it. Pure functions, any thread; input may be any bytes.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace nuvio {

// With each byte outside of a-z, A-Z, 0-9 and "-._~/" written as %XX.
inline std::string percent_encode(std::string_view text) {
    constexpr char kHex[] = "0123456789ABCDEF";
    std::string result;
    for (const char c : text) {
        if ((c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
            std::string_view("-._~/").find(c) != std::string_view::npos) {
            result += c;
        } else {
            const auto byte = static_cast<uint8_t>(c);
            result += {'%', kHex[byte >> 4U], kHex[byte & 0x0fU]};
        }
    }
    return result;
}

// The byte that "%XX" at the start of `text` stands for; none where it starts with no such escape.
inline std::optional<char> escaped_byte(std::string_view text) {
    const auto digit = [&](size_t index) {
        constexpr std::string_view kDigits = "0123456789abcdef";
        const char c = text[index];
        return kDigits.find(c >= 'A' && c <= 'F' ? static_cast<char>(c - 'A' + 'a') : c);
    };
    if (text.size() < 3 || text[0] != '%' || digit(1) == std::string_view::npos ||
        digit(2) == std::string_view::npos) {
        return std::nullopt;
    }
    return static_cast<char>(digit(1) * 16 + digit(2));
}

// None where a '%' is not followed by two hex digits.
inline std::optional<std::string> percent_decode(std::string_view text) {
    std::string result;
    while (!text.empty()) {
        const std::optional<char> byte = escaped_byte(text);
        if (!byte && text[0] == '%') {
            return std::nullopt;
        }
        result += byte.value_or(text[0]);
        text.remove_prefix(byte ? 3 : 1);
    }
    return result;
}

// Where a '%' is not followed by two hex digits it stays as it is.
inline std::string percent_decode_leniently(std::string_view text) {
    std::string result;
    while (!text.empty()) {
        const std::optional<char> byte = escaped_byte(text);
        result += byte.value_or(text[0]);
        text.remove_prefix(byte ? 3 : 1);
    }
    return result;
}

}  // namespace nuvio
