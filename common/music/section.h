// A part of a sound, by time: one track of a file that holds several. Plain values and pure
// functions, any thread; input may be any bytes.
//
// Times are in microseconds and mean the nearest frame, which is exact for each frame of a sound of
// up to 1 MHz. Where one part ends the next one begins, at the same frame.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "common/number.h"

namespace nuvio {

struct Section {
    static constexpr uint64_t kLongest = 1'000'000'000'000;  // eleven days
    static constexpr uint64_t kToTheEnd = UINT64_MAX;

    uint64_t begin_us = 0;
    uint64_t end_us = kToTheEnd;  // not in it

    // None of one to the end.
    std::optional<uint64_t> length_ms() const {
        return end_us == kToTheEnd ? std::nullopt : std::optional((end_us - begin_us) / 1000);
    }
    bool is_whole() const { return begin_us == 0 && end_us == kToTheEnd; }
    bool operator==(const Section&) const = default;
};

// Of a time of at most Section::kLongest.
constexpr uint64_t nearest_frame(uint64_t time_us, uint32_t rate_hz) {
    return (time_us * rate_hz + 500'000) / 1'000'000;
}

// The `count`-th of so many units a second, at most sixteen million. At most Section::kLongest.
constexpr uint64_t time_us_of(uint64_t count, uint32_t units_a_second) {
    const uint64_t most = Section::kLongest / 1'000'000 * units_a_second;
    return (std::min(count, most) * 1'000'000 + units_a_second / 2) / units_a_second;
}

// ---- In a URL: "#t=12.5,20", "#t=12.5" to the end. Who does not know of it plays the whole.

namespace section {

inline constexpr std::string_view kMark = "#t=";

// string_view::find() would do, but for a compiler that takes the texts of constants for endless.
inline size_t place_of(char c, std::string_view text) {
    return static_cast<size_t>(std::find(text.begin(), text.end(), c) - text.begin());
}

// "12.5" are 12,500,000; six digits behind the point at most.
inline std::optional<uint64_t> time_us(std::string_view seconds) {
    constexpr size_t kDigits = 6;
    const size_t point = place_of('.', seconds);
    std::string decimals(seconds.substr(std::min(point + 1, seconds.size())));
    if (decimals.size() > kDigits) {
        return std::nullopt;
    }
    decimals.resize(kDigits, '0');
    const auto whole = to_number<uint32_t>(seconds.substr(0, point));
    const auto part = to_number<uint32_t>(decimals);
    const uint64_t time = uint64_t{whole.value_or(0)} * 1'000'000 + part.value_or(0);
    return whole && part && time <= Section::kLongest ? std::optional(time) : std::nullopt;
}

inline std::string seconds(uint64_t time_us) {
    const std::string decimals = std::to_string(1'000'000 + time_us % 1'000'000);
    return std::to_string(time_us / 1'000'000) + "." + decimals.substr(1);
}

}  // namespace section

// What stands at the URL's end; the whole where nothing of the kind does.
inline Section section_of(std::string_view url) {
    const size_t mark = url.rfind(section::kMark);
    if (mark == std::string_view::npos) {
        return {};
    }
    const std::string_view times = url.substr(mark + section::kMark.size());
    const size_t comma = section::place_of(',', times);
    const auto begin = section::time_us(times.substr(0, comma));
    const auto end = comma == times.size() ? std::optional(Section::kToTheEnd)
                                           : section::time_us(times.substr(comma + 1));
    return begin && end && *begin < *end ? Section{*begin, *end} : Section{};
}

inline std::string_view without_section(std::string_view url) {
    return section_of(url).is_whole() ? url : url.substr(0, url.rfind(section::kMark));
}

inline std::string with_section(std::string url, const Section& section) {
    if (!section.is_whole()) {
        url.append(section::kMark).append(section::seconds(section.begin_us));
        if (section.end_us != Section::kToTheEnd) {
            url += "," + section::seconds(section.end_us);
        }
    }
    return url;
}

}  // namespace nuvio
