#pragma once

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
        m_since = now;
        m_running = true;
    }

    void stop(std::int64_t now) {
        m_base = exact_position(now);
        m_running = false;
    }

    bool running() const { return m_running; }

    void set_speed(double speed, std::int64_t now) {
        m_base = exact_position(now);
        m_since = now;
        m_speed = speed;
    }

    void move_by_hand(std::uint64_t frames) { m_base += static_cast<double>(frames); }

    // Takes the pointer back to `position`: the stream waited there for data.
    void hold_at(std::uint64_t position, std::int64_t now) {
        m_base = static_cast<double>(position);
        m_since = now;
    }

    std::uint64_t position(std::int64_t now) const {
        return static_cast<std::uint64_t>(exact_position(now));
    }

    // When `position` is reached, rounded up; 0: never as things are.
    std::int64_t time_of(std::uint64_t position) const {
        const double frames_per_ns = m_rate * m_speed / 1e9;
        if (!m_running || frames_per_ns <= 0) {
            return 0;
        }
        const double wait = (static_cast<double>(position) - m_base) / frames_per_ns;
        if (wait > kLongestWaitNs) {
            return 0;
        }
        return m_since + (wait > 0 ? static_cast<std::int64_t>(std::ceil(wait)) + 1 : 0);
    }

  private:
    static constexpr double kLongestWaitNs = 1e17;  // three years

    double exact_position(std::int64_t now) const {
        if (!m_running || now <= m_since) {
            return m_base;
        }
        return m_base + static_cast<double>(now - m_since) * m_rate * m_speed / 1e9;
    }

    unsigned m_rate = 0;
    double m_speed = 1;
    double m_base = 0;  // frames at `m_since`
    std::int64_t m_since = 0;
    bool m_running = false;
};

}  // namespace simcard
