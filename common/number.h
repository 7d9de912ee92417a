// Numbers in plain decimal text. Pure functions, any thread; no locale.
#pragma once

#include <charconv>
#include <concepts>
#include <cstdlib>
#include <optional>
#include <string>
#include <string_view>
#include <system_error>

namespace nuvio {

// The whole text as a number: digits, for a signed type a '-' before them, nothing else. None when
// it is anything else or does not fit.
template <std::integral Number>
std::optional<Number> to_number(std::string_view text) {
    Number number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    if (error != std::errc() || end != text.data() + text.size()) {
        return std::nullopt;
    }
    return number;
}

// The number that a text begins with, read leniently: white space and a sign before it, anything
// behind it; 0 without digits, the nearest limit of `long` where it does not fit.
inline long leading_number(const std::string& text) {
    return std::strtol(text.c_str(), nullptr, 10);
}

}  // namespace nuvio
