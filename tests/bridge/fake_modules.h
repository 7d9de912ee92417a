// Stand-ins for the renderer, the HTTP server and the advertiser.
#pragma once

#include <deque>
#include <functional>
#include <string>
#include <vector>

#include "fakes/locked.h"
#include "sdk/nuvio_connect.h"

namespace fake_modules {

struct Song {
    std::string title;
    nuv_audio_format format;
    uint64_t duration_ms;
};

struct State {
    bool no_renderer = false;
    std::function<void()> on_tick;  // every millisecond on the loop's thread; set before the start
    // The playing source: the next one at each question, the last one from then on.
    std::deque<Song> tracks;
    size_t questions = 0;  // asked for the playing source's metadata so far
    // "renderer new default default Master", "http new 8000", "advertiser free", ...
    std::vector<std::string> journal;
};

using Locked = fakes::Locked<State>;
Locked state();
void reset();

}  // namespace fake_modules
