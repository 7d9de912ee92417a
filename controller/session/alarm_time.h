// When an alarm is due: a time of day, on some days of the week or on whichever comes first, in the
// local time of this machine. Pure functions of its time zone; any thread.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace nuvio::controller {

inline constexpr std::array<std::string_view, 7> kDays{"mon", "tue", "wed", "thu",
                                                       "fri", "sat", "sun"};

struct AlarmTime {
    int minute = 0;     // of the day
    unsigned days = 0;  // a bit each, Monday's the lowest; none: once
};

// "07:00" or "7:00"; none: something else.
std::optional<int> to_minute(std::string_view text);
std::string minute_text(int minute);

// The first one behind `after`, both in seconds since 1970. Where the clocks skip that time of day
// it is as much later as they skip; where it comes twice, it is the first of them. None: the
// machine's time has none.
std::optional<int64_t> next_due(const AlarmTime& time, int64_t after);

}  // namespace nuvio::controller
