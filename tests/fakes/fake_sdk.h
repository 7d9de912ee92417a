// The SDK in a test's hands: every function of sdk/nuvio_connect.h, recorded as a line of text and
// answered as the test says. It calls no delegate of its own; the test does, through config().
#pragma once

#include <map>
#include <string>
#include <vector>

#include "sdk/nuvio_connect.h"

namespace fake_sdk {

// What the queries give back.
struct Values {
    uint32_t volume = 30;
    bool muted = false;
    bool shuffle = false;
    nuv_loop_mode loop_mode = NUV_LOOP_MODE_OFF;
    bool active = true;
    nuv_playback_state playback_state = NUV_PLAYBACK_STATE_STOPPED;
    const char* session_id = "session-1";
    const char* uuid = "0a1b2c3d-0000-4000-8000-000000000001";
    const char* version = "1.2.3";
    nuv_stream_metadata metadata{"Title", "Artist", "Album", "file:///art.jpg"};
};

// Forgets calls, results, values and hooks.
void reset();

// The calls so far, e.g. "set_volume 40", "notify_playback_finished true": the name without its
// "nuv_connect_" and the arguments after the core. Queries and text functions are not recorded.
std::vector<std::string> calls();
std::vector<std::string> take_calls();  // and forgets them

// From now on the function of this short name ("set_volume") returns this error.
void set_result(const std::string& name, nuv_error result);
// Runs inside every recorded call, after it was recorded, on the caller's thread; null for none.
void on_call(void (*hook)(const std::string& call));

void set_values(const Values& values);

// The core that nuv_connect_create returns, and the configuration it was given last.
nuv_connect* core();
nuv_connect_config config();
nuv_log_delegate log_delegate();

}  // namespace fake_sdk
