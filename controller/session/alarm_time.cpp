#include "controller/session/alarm_time.h"

#include <algorithm>
#include <ctime>

#include "common/number.h"

namespace nuvio::controller {

namespace {

constexpr int kMinutes = 60;  // of an hour
constexpr int kHours = 24;
constexpr int kWeek = 7;  // days

struct Moment {
    int64_t at = 0;
    bool is_so = false;  // by the clock it is that time then
};

// So many days behind that of `local`, which may be beyond its month.
Moment moment(tm local, int days, int minute, bool is_summer) {
    local.tm_mday += days;
    local.tm_hour = minute / kMinutes;
    local.tm_min = minute % kMinutes;
    local.tm_sec = 0;
    local.tm_isdst = is_summer ? 1 : 0;
    const time_t at = std::mktime(&local);
    return {at, local.tm_hour == minute / kMinutes && local.tm_min == minute % kMinutes};
}

// Where both are so, the time comes twice; where neither is, the later one is behind the gap.
int64_t moment(const tm& local, int days, int minute) {
    const Moment summer = moment(local, days, minute, true);
    const Moment winter = moment(local, days, minute, false);
    if (summer.is_so == winter.is_so) {
        return summer.is_so ? std::min(summer.at, winter.at) : std::max(summer.at, winter.at);
    }
    return summer.is_so ? summer.at : winter.at;
}

}  // namespace

std::optional<int> to_minute(std::string_view text) {
    const size_t colon = text.find(':');
    if (colon == std::string_view::npos || colon > 2 || text.size() != colon + 3) {
        return std::nullopt;
    }
    const std::optional<unsigned> hour = to_number<unsigned>(text.substr(0, colon));
    const std::optional<unsigned> minute = to_number<unsigned>(text.substr(colon + 1));
    const bool is_time = hour && minute && *hour < kHours && *minute < kMinutes;
    return is_time ? std::optional(static_cast<int>(*hour * kMinutes + *minute)) : std::nullopt;
}

std::string minute_text(int minute) {
    const auto two = [](int number) { return (number < 10 ? "0" : "") + std::to_string(number); };
    return two(minute / kMinutes) + ":" + two(minute % kMinutes);
}

std::optional<int64_t> next_due(const AlarmTime& time, int64_t after) {
    const auto from = static_cast<time_t>(after);
    tm local{};
    if (localtime_r(&from, &local) == nullptr) {
        return std::nullopt;
    }
    // The same day of the next week is the last that may be it.
    for (int days = 0; days <= kWeek; ++days) {
        const int weekday = (local.tm_wday + kWeek - 1 + days) % kWeek;
        const bool is_meant =
            time.days == 0 || (time.days >> static_cast<unsigned>(weekday) & 1U) != 0;
        const int64_t at = is_meant ? moment(local, days, time.minute) : after;
        if (at > after) {
            return at;
        }
    }
    return std::nullopt;
}

}  // namespace nuvio::controller
