// What a press took away of a device's queue, so that another one puts it back. Plain data and pure
// functions, any thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "controller/session/device_state.h"

namespace nuvio::controller {

struct Taken {
    // Neighbours, and the item that they stood in front of; none: they were the last.
    struct Run {
        std::vector<QueueItem> items;
        std::optional<int64_t> before;
    };
    struct Place {
        size_t run = 0, at = 0;
    };

    int64_t number = 0;             // of the press
    std::string session;            // whose items these were
    std::vector<Run> runs;          // in the queue's order
    std::optional<int64_t> newest;  // item of the queue when these were first put back; none: never
    bool is_all = false;            // another queue has taken its place
    std::optional<Place> current;   // of the current track, where it went along
    int64_t position_ms = 0;
    Playback playback = Playback::stopped;
};

// None where the queue is not known to its end, or nothing of it is meant.
std::optional<Taken> taken_of(const DeviceState& state,
                              const std::function<bool(const QueueItem&)>& is_meant,
                              DeviceState::Clock::time_point now);

// Of the runs what is not in the queue: a press may be carried out in part, and so may putting back
// be, with new items. From the first call on items newer than there were then count as put back.
std::vector<Taken::Run> missing_of(const DeviceState& state, Taken& taken);

// What the track that was current is called since its run was put back; none: it is not there.
std::optional<int64_t> current_again(const DeviceState& state, const Taken& taken);

}  // namespace nuvio::controller
