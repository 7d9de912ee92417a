#include "local/pace.h"

#include <algorithm>

namespace local_core {

namespace {

using std::chrono::milliseconds;
using FloatMs = std::chrono::duration<double, std::milli>;

constexpr milliseconds kBetweenLooks{1000};
constexpr milliseconds kSettling{200};
constexpr milliseconds kLongestWait{1000};
constexpr uint64_t kShortOutputMs = 200;  // filled as soon as there is room
constexpr uint64_t kMeasurableMs = 100;
// The end of the track is near: the device runs on by itself.
constexpr double kNoMoreLooksMs = 1300;

}  // namespace

void Pace::begin(Time now) {
    m_offer_at = now;
    m_look_at = now;
    m_settled_at = now + kSettling;
    m_is_short = false;
    m_full.reset();
}

void Pace::end_of_data(Time now) {
    m_offer_at = now;
    m_look_at = now;
}

void Pace::fill(uint64_t delivered_ms, uint64_t heard_ms, Time now) {
    const uint64_t held_ms = delivered_ms - std::min(heard_ms, delivered_ms);
    m_is_short = held_ms < kShortOutputMs;
    if (m_full && heard_ms >= m_full->heard_ms + kMeasurableMs) {
        const double passed_ms = FloatMs(now - m_full->at).count();
        m_rate = std::max(1.0, static_cast<double>(heard_ms - m_full->heard_ms) / passed_ms);
    }
    m_full = {heard_ms, now};
    if (!m_is_short) {
        const FloatMs half(static_cast<double>(held_ms) / 2);
        m_offer_at = now + std::chrono::duration_cast<Clock::duration>(
                               std::min<FloatMs>(half, kLongestWait) / m_rate);
    }
}

void Pace::looked(std::optional<uint64_t> left_ms, Time now) {
    if (left_ms && static_cast<double>(*left_ms) < kNoMoreLooksMs * m_rate) {
        m_look_at = Time::max();
    } else {
        m_look_at = now < m_settled_at ? m_settled_at : now + kBetweenLooks;
    }
}

std::optional<Pace::Time> Pace::next_after(Time now) const {
    Time next = Time::max();
    for (const Time time : {m_offer_at, m_look_at}) {
        if (time > now) {
            next = std::min(next, time);
        }
    }
    return next == Time::max() ? std::nullopt : std::optional(next);
}

}  // namespace local_core
