// Offers the streams' samples at the output's pace (Pace), and asks the renderer for the place that
// is heard when that is due.
//
// Loop thread only. Calls the delegates of StreamQueue::offer, finish and heard_position_ms.
// Nothing here copies samples, allocates or waits.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>

#include "local/playback/pace.h"
#include "local/playback/stream_queue.h"

namespace local_core {

class Delivery {
  public:
    using Role = StreamQueue::Role;

    // `is_heard`: the renderer plays the current stream, and nothing is about to change that. Asked
    // anew after each delegate, which may have changed it.
    Delivery(StreamQueue& streams, std::function<bool()> is_heard);

    // Sound begins: at a start, after a pause or a seek. `go_on`: the next track has followed
    // without a gap.
    void begin();
    void go_on();

    // Asks for the place that is heard, where that is due; true when data is to be offered.
    bool follow();
    // Offers the stream's data once. At its end `is_at_end` is set as soon as the end may be
    // reported, by `finish`.
    StreamQueue::Offered offer(Role role);
    void finish(Role role);

    // The place in the current track that is heard, no further than can have been heard by now.
    uint64_t heard_ms() const;
    // When to come back although nothing has happened; none while nothing is heard.
    std::optional<Pace::Time> next_time() const;

  private:
    // What a filling of the output may still offer it.
    struct Filling {
        uint64_t heard_ms;  // when it began
        size_t bytes;
    };

    void ask_place();
    bool is_end_to_wait(Role role) const;
    std::optional<Filling> known_room() const;
    StreamQueue::Offered offer_current();
    void follow_full_output();

    StreamQueue& m_streams;
    const std::function<bool()> m_is_heard;
    Pace m_pace;
    std::optional<Filling> m_filling;  // under way, of an output whose room is known
};

}  // namespace local_core
