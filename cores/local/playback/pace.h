// When a track that plays needs the loop: for new data, once a good part of what the output holds
// has been played, and for a look at the place that is heard, which the renderer reports to the
// device when it is asked, once a second.
//
// Offering at each frame of room that the renderer announces would wake the process as often as the
// output's shortest period, some hundred times a second on a sound server. And an offer of more
// than there is room for makes the renderer watch for the rest of it, which wakes the process once
// more: what an output holds is known once it has been full, and no more than it lacks is offered
// then.
//
// Calls nothing; any thread, unlocked.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>

namespace local_core {

class Pace {
  public:
    using Clock = std::chrono::steady_clock;
    using Time = Clock::time_point;

    // Sound begins: at a track's start, after a seek or a pause. Data is wanted at once, and a look
    // before it and soon after it.
    void begin(Time now);
    // The next track has followed without a gap: as above, but the output is known. It may count a
    // little more than it has been given, and then there is no place to be told yet.
    void go_on(Time now);
    // All of the track has been delivered: what comes next waits for nothing.
    void end_of_data(Time now);

    // The output is full. Places in the track, in ms.
    void fill(uint64_t delivered_ms, uint64_t heard_ms, Time now);
    // It has taken all that it was known to have room for.
    void top_up(uint64_t delivered_ms, uint64_t heard_ms, Time now);
    // Worth a call of `room_ms`: not from a beginning to the next `fill`, nor too many times after
    // it.
    bool knows_capacity() const;
    // What the output is known to have room for, in ms: none where that is not known, and where it
    // holds so little that it had better be filled for certain.
    std::optional<uint64_t> room_ms(uint64_t delivered_ms, uint64_t heard_ms) const;
    // Worth a call of `fill`: the output is not known to hold too little for that.
    bool may_hold() const { return !m_is_short; }

    struct Due {
        bool offer, look;
    };
    // What has come by `now`, to be seen to in this pass of the loop.
    Due due(Time now);
    // The first that `due` did not tell of, which may have come since.
    std::optional<Time> next() const;

    // After a look, also one for `fill`; with what is left of a track that was delivered wholly.
    void looked(uint64_t heard_ms, std::optional<uint64_t> left_ms, Time now);

    // A sound server knows only some time after the beginning what it has been given, and takes all
    // of it for heard: the answer, but no more than can have been heard by then.
    uint64_t plausible(uint64_t heard_ms, Time now) const;
    // Data, or its end, had better wait for a better answer.
    void wait_for_answer(Time now);

  private:
    struct Filled {
        uint64_t heard_ms;
        Time at;
    };

    Time m_offer_at;
    Time m_look_at = Time::max();
    Time m_told_at;  // of what is due
    Time m_began_at;
    Time m_track_began_at;  // the same, or later: this track's beginning
    std::optional<uint64_t> m_began_ms;
    bool m_is_short = false;       // the output
    std::optional<Filled> m_full;  // when it was filled last
    uint64_t m_capacity_ms = 0;    // 0: not known
    int m_top_ups = 0;             // since it was measured
    double m_rate = 1;             // of the output's clock to ours: more in tests
};

}  // namespace local_core
