// Comparing and trimming plain ASCII. Pure functions, any thread; no locale.
#pragma once

#include <algorithm>
#include <cstddef>
#include <string_view>

namespace nuvio {

inline char to_lower(char c) {
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

// Equal but for the case of ASCII letters.
inline bool equals_ignoring_case(std::string_view a, std::string_view b) {
    return std::equal(a.begin(), a.end(), b.begin(), b.end(),
                      [](char x, char y) { return to_lower(x) == to_lower(y); });
}

inline bool starts_with_ignoring_case(std::string_view text, std::string_view prefix) {
    return equals_ignoring_case(text.substr(0, prefix.size()), prefix);
}

inline bool ends_with_ignoring_case(std::string_view text, std::string_view end) {
    return text.size() >= end.size() &&
           equals_ignoring_case(text.substr(text.size() - end.size()), end);
}

// Without blanks, tabs and line ends at either side.
inline std::string_view trim(std::string_view text) {
    constexpr std::string_view kBlanks = " \t\r\n";
    const size_t first = text.find_first_not_of(kBlanks);
    if (first == std::string_view::npos) {
        return {};
    }
    return text.substr(first, text.find_last_not_of(kBlanks) - first + 1);
}

}  // namespace nuvio
