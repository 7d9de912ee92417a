#pragma once

#include <algorithm>
#include <cmath>
#include <cstdint>

namespace simcard {

// Where the hardware pointer is: frames since the last reset, moving with the monotonic clock times
// a speed factor while running, and by hand. Times are nanoseconds of CLOCK_MONOTONIC. Not thread
// safe. A double holds a day of 192 kHz at a thousand times the speed to a hundredth of a frame.
class StreamClock {
  public:
    // Stopped at frame 0.
    void reset(unsigned rate, double speed) {
        m_rate = rate;
        m_speed = speed;
        m_base = 0;
        m_running = false;
    }

    void start(std::int64_t now) {
        m_since = m_going_since = now;
        m_running = true;
    }

    // Stops at `limit` if it has gone beyond.
    void stop(std::int64_t now, std::uint64_t limit) {
        m_base = std::min(exact_position(now), static_cast<double>(limit));
        m_running = false;
    }

    bool running() const { return m_running; }

    void set_speed(double speed, std::int64_t now) {
        m_base = exact_position(now);
        m_since = now;
        if (m_speed <= 0) {
            m_going_since = now;
        }
        m_speed = speed;
    }

    void move_by_hand(std::uint64_t frames, std::int64_t now) {
        m_base = exact_position(now) + static_cast<double>(frames);
        m_since = m_going_since = now;
    }

    // Takes the pointer back to `position`: the stream waited there for data.
    void hold_at(std::uint64_t position, std::int64_t now) {
        m_base = static_cast<double>(position);
        m_since = m_going_since = now;
    }

    std::uint64_t position(std::int64_t now) const {
        return static_cast<std::uint64_t>(exact_position(now));
    }

    // When `position` is reached, rounded up; 0: never as things are.
    std::int64_t time_of(std::uint64_t position) const {
        const double frames_per_ns = this->frames_per_ns();
        if (!m_running || frames_per_ns <= 0) {
            return 0;
        }
        const double wait = (static_cast<double>(position) - m_base) / frames_per_ns;
        if (wait > kLongestWaitNs) {
            return 0;
        }
        return m_since + (wait > 0 ? static_cast<std::int64_t>(std::ceil(wait)) + 1 : 0);
    }

    // When `position`, which has been reached, was reached since the last change of pace (a start,
    // a hold, another speed, frames by hand), to the nearest nanosecond; of an earlier one, when
    // that change was.
    std::int64_t reached_at(std::uint64_t position) const {
        const double way = static_cast<double>(position) - m_base;
        return way > 0 ? m_since + std::llround(way / frames_per_ns()) : m_since;
    }

    // The first whole frame at or after the last change of pace: from there on all is steady.
    std::uint64_t knee() const { return static_cast<std::uint64_t>(std::ceil(m_base)); }

    // When the pointer last stood still or was moved by hand: a running clock has gone on its own
    // since then.
    std::int64_t going_since() const { return m_going_since; }

  private:
    static constexpr double kLongestWaitNs = 1e17;  // three years

    double frames_per_ns() const { return m_rate * m_speed / 1e9; }

    double exact_position(std::int64_t now) const {
        if (!m_running || now <= m_since) {
            return m_base;
        }
        return m_base + static_cast<double>(now - m_since) * m_rate * m_speed / 1e9;
    }

    unsigned m_rate = 0;
    double m_speed = 1;
    double m_base = 0;  // frames at `m_since`
    std::int64_t m_since = 0, m_going_since = 0;
    bool m_running = false;
};

}  // namespace simcard
