// What the device modules tell the host platform. Called on the loop thread.
//
// All but host_allow_source and host_report_playback_position post a command to the bridge's
// queue and never wait for the command thread; the current values are read back from the SDK when
// the command is handled. Without a bridge they do nothing and host_allow_source refuses.
#pragma once

#include <cstdint>

// True when the host gives this renderer the audio output.
bool host_allow_source();
// Position in ms; passed on only while playing.
void host_report_playback_position(uint64_t position_ms);
void host_report_mute_state();
void host_report_volume();
void host_report_shuffle_repeat();
// status: an nuv_playback_state value.
void host_report_playback_status(int status);
