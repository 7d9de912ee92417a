// How long a device may say nothing over its channel: then it is asked whether it is there, by a
// ping, and has a while to answer.
//
// Threads  plain data; its owner sees to locking.
#pragma once

#include <algorithm>
#include <chrono>
#include <optional>

namespace nuvio::controller {

class Silence {
  public:
    using Clock = std::chrono::steady_clock;

    void set_playing(bool is_playing) { m_is_playing = is_playing; }
    // An answer is to come.
    void expect_word(Clock::time_point now) { m_word_due = now + kUntilAnswer; }
    // Something has come, be it a pong.
    void heard(Clock::time_point now) {
        m_heard_at = now;
        m_word_due.reset();
        m_pinged_at.reset();
    }
    void pinged(Clock::time_point now) { m_pinged_at = now; }
    bool is_pinged() const { return m_pinged_at.has_value(); }

    // When something is to be heard at the latest.
    Clock::time_point due() const {
        if (m_pinged_at) {
            return *m_pinged_at + kUntilPong;
        }
        const Clock::duration usual = m_is_playing ? kBetweenPositions : kBetweenPings;
        return m_word_due ? std::min(*m_word_due, m_heard_at + usual) : m_heard_at + usual;
    }

  private:
    // While it plays it tells its position every ten seconds; else it pings after thirty itself.
    static constexpr Clock::duration kBetweenPositions = std::chrono::milliseconds(10'500);
    static constexpr Clock::duration kBetweenPings = std::chrono::seconds(75);
    static constexpr Clock::duration kUntilAnswer = std::chrono::seconds(3);
    static constexpr Clock::duration kUntilPong = std::chrono::milliseconds(3'500);

    bool m_is_playing = false;
    Clock::time_point m_heard_at = Clock::now();
    std::optional<Clock::time_point> m_word_due;
    std::optional<Clock::time_point> m_pinged_at;
};

}  // namespace nuvio::controller
