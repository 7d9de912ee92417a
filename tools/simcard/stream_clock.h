#ifndef SIMCARD_STREAM_CLOCK_H
#define SIMCARD_STREAM_CLOCK_H

#include <cmath>
#include <cstdint>

namespace simcard {

/*
 * Where the hardware pointer is: frames since the last reset, moving with the monotonic clock times
 * a speed factor while running, and by hand. Times are nanoseconds of CLOCK_MONOTONIC. Not thread
 * safe. A double holds a day of 192 kHz at a thousand times the speed to a hundredth of a frame.
 */
class StreamClock {
  public:
    /* Stopped at frame 0. */
    void reset(unsigned rate, double speed) {
        rate_ = rate;
        speed_ = speed;
        base_ = 0;
        running_ = false;
    }

    void start(std::int64_t now) {
        since_ = now;
        running_ = true;
    }

    void stop(std::int64_t now) {
        base_ = exact_position(now);
        running_ = false;
    }

    bool running() const { return running_; }

    void set_speed(double speed, std::int64_t now) {
        base_ = exact_position(now);
        since_ = now;
        speed_ = speed;
    }

    void move_by_hand(std::uint64_t frames) { base_ += static_cast<double>(frames); }

    /* Takes the pointer back to `position`: the stream waited there for data. */
    void hold_at(std::uint64_t position, std::int64_t now) {
        base_ = static_cast<double>(position);
        since_ = now;
    }

    std::uint64_t position(std::int64_t now) const {
        return static_cast<std::uint64_t>(exact_position(now));
    }

    /* When `position` is reached, rounded up; 0: never as things are. */
    std::int64_t time_of(std::uint64_t position) const {
        const double frames_per_ns = rate_ * speed_ / 1e9;
        if (!running_ || frames_per_ns <= 0)
            return 0;
        const double wait = (static_cast<double>(position) - base_) / frames_per_ns;
        if (wait > longest_wait_ns)
            return 0;
        return since_ + (wait > 0 ? static_cast<std::int64_t>(std::ceil(wait)) + 1 : 0);
    }

  private:
    static constexpr double longest_wait_ns = 1e17; /* three years */

    double exact_position(std::int64_t now) const {
        if (!running_ || now <= since_)
            return base_;
        return base_ + static_cast<double>(now - since_) * rate_ * speed_ / 1e9;
    }

    unsigned rate_ = 0;
    double speed_ = 1;
    double base_ = 0; /* frames at `since_` */
    std::int64_t since_ = 0;
    bool running_ = false;
};

}  // namespace simcard

#endif
