#include "controller/command_line/arguments.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <system_error>

#include "common/number.h"
#include "common/url/url.h"

namespace nuvio::controller {

std::optional<Amount> to_amount(const std::string& text) {
    const bool is_relative = text.starts_with('+') || text.starts_with('-');
    const std::optional<int64_t> number =
        to_number<int64_t>(text.starts_with('+') ? text.substr(1) : text);
    return number ? std::optional(Amount{*number, is_relative}) : std::nullopt;
}

std::optional<Amount> to_time(const std::string& text) {
    const bool is_relative = text.starts_with('+') || text.starts_with('-');
    int64_t seconds = 0;
    std::string rest = text.substr(is_relative ? 1 : 0);
    while (true) {
        const size_t colon = rest.find(':');
        const std::optional<uint32_t> part = to_number<uint32_t>(rest.substr(0, colon));
        if (!part || seconds > 1'000'000) {
            return std::nullopt;
        }
        seconds = seconds * 60 + *part;
        if (colon == std::string::npos) {
            break;
        }
        rest.erase(0, colon + 1);
    }
    return Amount{(text.starts_with('-') ? -1000 : 1000) * seconds, is_relative};
}

std::optional<bool> to_switch(const std::string& text) {
    return text == "on" ? std::optional(true) : text == "off" ? std::optional(false) : std::nullopt;
}

std::string time_text(int64_t ms) {
    const long long seconds = ms / 1000;
    std::array<char, 48> text{};
    if (seconds < 3600) {
        std::snprintf(text.data(), text.size(), "%lld:%02lld", seconds / 60, seconds % 60);
    } else {
        std::snprintf(text.data(), text.size(), "%lld:%02lld:%02lld", seconds / 3600,
                      seconds / 60 % 60, seconds % 60);
    }
    return text.data();
}

std::string to_what(const std::string& text) {
    constexpr std::array kKinds{"track:",    "album:",    "artist:",  "folder:", "genre:",
                                "composer:", "playlist:", "station:", "search:"};
    if (is_web_address(text) ||
        std::ranges::any_of(kKinds, [&](const char* kind) { return text.starts_with(kind); })) {
        return text;
    }
    std::error_code error;
    if (text.starts_with('/') || std::filesystem::exists(text, error)) {
        return std::filesystem::absolute(text, error).lexically_normal();
    }
    return "search:" + text;
}

}  // namespace nuvio::controller
