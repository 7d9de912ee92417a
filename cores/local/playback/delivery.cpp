#include "local/playback/delivery.h"

#include <algorithm>
#include <utility>

namespace local_core {

Delivery::Delivery(StreamQueue& streams, std::function<bool()> is_heard)
    : m_streams(streams), m_is_heard(std::move(is_heard)) {}

void Delivery::begin() {
    m_filling.reset();
    m_pace.begin(Pace::Clock::now());
}

void Delivery::go_on() {
    m_filling.reset();
    m_pace.go_on(Pace::Clock::now());
}

bool Delivery::follow() {
    const Pace::Due due = m_pace.due(Pace::Clock::now());
    if (due.look) {
        ask_place();
    }
    return due.offer;
}

// In a hand-over the renderer's answer is too small by the next stream's share: it is not asked,
// for it would tell the device that, too.
void Delivery::ask_place() {
    if (!m_is_heard() || m_streams.is_handing_over()) {
        return;
    }
    const uint64_t heard = heard_ms();
    std::optional<uint64_t> left_ms;
    const TrackInfo& info = m_streams.current()->info();
    if (m_streams.current()->is_finished() && !info.is_guess) {
        const uint64_t duration_ms = info.duration_ms();
        left_ms = duration_ms - std::min(heard, duration_ms);
    }
    m_pace.looked(heard, left_ms, Pace::Clock::now());
}

StreamQueue::Offered Delivery::offer(Role role) {
    StreamQueue::Offered offered = role == Role::current ? offer_current() : m_streams.offer(role);
    if (offered.is_at_end && is_end_to_wait(role)) {
        m_pace.wait_for_answer(Pace::Clock::now());
        return {};
    }
    if (offered.is_output_full && role == Role::current) {
        follow_full_output();
    }
    return offered;
}

// No more than the output is known to take, where that is known.
StreamQueue::Offered Delivery::offer_current() {
    if (!m_filling) {
        m_filling = known_room();
    }
    if (!m_filling) {
        return m_streams.offer(Role::current);
    }
    StreamQueue::Offered offered;
    if (m_filling->bytes > 0) {
        offered = m_streams.offer(Role::current, m_filling->bytes);
    }
    if (m_filling && m_filling->bytes == offered.taken_bytes && m_is_heard()) {
        const Pace::Time now = Pace::Clock::now();
        m_pace.top_up(m_streams.delivered_position_ms(), m_filling->heard_ms, now);
        m_pace.looked(m_filling->heard_ms, std::nullopt, now);
        offered.has_more = false;
    }
    if (m_filling && offered.has_more) {
        m_filling->bytes -= offered.taken_bytes;
    } else {
        m_filling.reset();
    }
    return offered;
}

std::optional<Delivery::Filling> Delivery::known_room() const {
    if (!m_is_heard() || m_streams.is_handing_over() || !m_pace.knows_capacity()) {
        return std::nullopt;
    }
    const uint64_t heard = heard_ms();
    const auto room_ms = m_pace.room_ms(m_streams.delivered_position_ms(), heard);
    if (!room_ms) {
        return std::nullopt;
    }
    const TrackInfo& info = m_streams.current()->info();
    const uint64_t frames = *room_ms * info.format.sample_rate / 1000;
    return Filling{heard, static_cast<size_t>(frames * info.frame_bytes)};
}

void Delivery::finish(Role role) {
    m_filling.reset();
    m_streams.finish(role);
    m_pace.end_of_data(Pace::Clock::now());
}

uint64_t Delivery::heard_ms() const {
    return m_pace.plausible(m_streams.heard_position_ms(), Pace::Clock::now());
}

// The renderer asks the output at the end of a track what it still has to play.
bool Delivery::is_end_to_wait(Role role) const {
    if (role != Role::current || !m_is_heard()) {
        return false;
    }
    const uint64_t told = m_streams.heard_position_ms();
    return told > m_pace.plausible(told, Pace::Clock::now());
}

void Delivery::follow_full_output() {
    if (m_is_heard() && !m_streams.is_handing_over() && m_pace.may_hold()) {
        const Pace::Time now = Pace::Clock::now();
        const uint64_t heard = heard_ms();
        m_pace.fill(m_streams.delivered_position_ms(), heard, now);
        m_pace.looked(heard, std::nullopt, now);
    }
}

std::optional<Pace::Time> Delivery::next_time() const {
    return m_is_heard() ? m_pace.next() : std::nullopt;
}

}  // namespace local_core
