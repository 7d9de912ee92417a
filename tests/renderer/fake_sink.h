// The ALSA sink in a test's hands: takes as much as the test gives it room for, and holds as much
// as the test says. What it opens, writes, drains and closes become lines of the journal.
#pragma once

#include <functional>

#include "media/sink/alsa/alsa_audio_sink.h"

namespace fake_sink {

struct State {
    bool exists = true;  // false: audio_sink_new returns null
    bool can_open = true;
    bool can_write = true;
    size_t room = SIZE_MAX;                                // bytes that one write takes
    std::function<size_t(size_t offered)> take = nullptr;  // where it is set, says that instead
    uint64_t buffered_frames = 0;                          // not yet heard
    bool buffered_is_known = true;
    bool open = false;
    nuv_audio_format format{};     // that it was opened for
    bool waits_for_space = false;  // took a part only; the signal is due
};

// Forgets everything, the listener included.
void reset();
State& state();
void signal_space();

}  // namespace fake_sink
