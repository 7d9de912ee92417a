// Stand-ins for the renderer, the HTTP server and the advertiser, each with a real loop handle.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "sdk/nuvio_connect.h"

namespace fake_modules {

struct Track {
    std::string title;
    nuv_audio_format format;
    uint64_t duration_ms;
};

struct Setup {
    bool no_renderer = false;
    std::function<void()> on_tick;  // every millisecond on the loop's thread
};

// Forgets the journal and the track.
void reset(const Setup& setup = {});
// "renderer new default default Master", "http new 8000", "advertiser set_core", "renderer free".
std::vector<std::string> journal();
void note(const std::string& line);  // adds to it

// The playing source: the next track of the list at each question, the last one from then on.
void play(const std::vector<Track>& tracks);
void play_nothing();
size_t questions();  // asked for the playing source's metadata so far

}  // namespace fake_modules
