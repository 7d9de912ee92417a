#include "local/playback/pace.h"

#include <algorithm>
#include <array>
#include <span>

namespace local_core {

namespace {

using std::chrono::milliseconds;
using FloatMs = std::chrono::duration<double, std::milli>;

constexpr milliseconds kBetweenLooks{1000};
// After a beginning. The first is for a track that follows: at the beginning of the sound a server
// would still tell nonsense.
constexpr std::array kFirstLooks = {milliseconds{20}, milliseconds{50}, milliseconds{200}};
constexpr milliseconds kSettling{300};
constexpr milliseconds kRetry{20};
constexpr milliseconds kLongestWait{1000};
constexpr uint64_t kShortOutputMs = 200;  // filled as soon as there is room
constexpr uint64_t kReserveMs = 500;      // or half of it stays in the output, for a busy machine
constexpr uint64_t kMeasurableMs = 100;
constexpr int kTopUpsOfCapacity = 20;   // a server may change its mind
constexpr uint64_t kPlaceErrorMs = 10;  // of what is told as heard
// The end of the track is near: the device runs on by itself.
constexpr double kNoMoreLooksMs = 1300;

uint64_t held_ms(uint64_t delivered_ms, uint64_t heard_ms) {
    return delivered_ms - std::min(heard_ms, delivered_ms);
}

}  // namespace

void Pace::begin(Time now) {
    m_offer_at = now;
    m_look_at = now;
    m_began_at = now;
    m_track_began_at = now;
    m_began_ms.reset();
    m_is_short = false;
    m_full.reset();
    m_capacity_ms = 0;
}

void Pace::go_on(Time now) {
    m_offer_at = now;
    m_look_at = now;
    m_track_began_at = now;
    m_full.reset();
    m_capacity_ms = 0;
}

void Pace::end_of_data(Time now) {
    m_offer_at = now;
    m_look_at = now;
}

void Pace::fill(uint64_t delivered_ms, uint64_t heard_ms, Time now) {
    const uint64_t held = held_ms(delivered_ms, heard_ms);
    m_capacity_ms = held;
    m_is_short = held < kShortOutputMs;
    top_up(delivered_ms, heard_ms, now);
    m_top_ups = 0;
}

void Pace::top_up(uint64_t delivered_ms, uint64_t heard_ms, Time now) {
    const uint64_t held = held_ms(delivered_ms, heard_ms);
    ++m_top_ups;
    if (m_full && heard_ms >= m_full->heard_ms + kMeasurableMs) {
        const double passed_ms = FloatMs(now - m_full->at).count();
        m_rate = std::max(1.0, static_cast<double>(heard_ms - m_full->heard_ms) / passed_ms);
    }
    m_full = {heard_ms, now};
    if (!m_is_short) {
        const uint64_t spare_ms = held - std::min(held, kReserveMs);
        const FloatMs wait(static_cast<double>(std::max(spare_ms, held / 2)));
        m_offer_at = now + std::chrono::duration_cast<Clock::duration>(
                               std::min<FloatMs>(wait, kLongestWait) / m_rate);
    }
}

bool Pace::knows_capacity() const {
    return m_capacity_ms > 0 && !m_is_short && m_top_ups < kTopUpsOfCapacity;
}

std::optional<uint64_t> Pace::room_ms(uint64_t delivered_ms, uint64_t heard_ms) const {
    const uint64_t held = held_ms(delivered_ms, heard_ms);
    if (!knows_capacity() || held < m_capacity_ms / 4) {
        return std::nullopt;
    }
    return m_capacity_ms - std::min(m_capacity_ms, held + kPlaceErrorMs);
}

Pace::Due Pace::due(Time now) {
    m_told_at = now;
    return {now >= m_offer_at, now >= m_look_at};
}

std::optional<Pace::Time> Pace::next() const {
    Time next = Time::max();
    for (const Time time : {m_offer_at, m_look_at}) {
        if (time > m_told_at) {
            next = std::min(next, time);
        }
    }
    return next == Time::max() ? std::nullopt : std::optional(next);
}

void Pace::looked(uint64_t heard_ms, std::optional<uint64_t> left_ms, Time now) {
    m_began_ms = m_began_ms.value_or(heard_ms);
    if (left_ms && static_cast<double>(*left_ms) < kNoMoreLooksMs * m_rate) {
        m_look_at = Time::max();
        return;
    }
    const std::span looks(kFirstLooks.begin() + (m_track_began_at == m_began_at ? 1 : 0),
                          kFirstLooks.end());
    const auto first = std::ranges::find_if(
        looks, [&](milliseconds after) { return now < m_track_began_at + after; });
    m_look_at = first == looks.end() ? now + kBetweenLooks : m_track_began_at + *first;
}

uint64_t Pace::plausible(uint64_t heard_ms, Time now) const {
    if (!m_began_ms || now >= m_began_at + kSettling) {
        return heard_ms;
    }
    const double passed_ms = FloatMs(now - m_began_at).count() * m_rate;
    return std::min(heard_ms, *m_began_ms + static_cast<uint64_t>(passed_ms));
}

void Pace::wait_for_answer(Time now) {
    m_offer_at = now + kRetry;
}

}  // namespace local_core
