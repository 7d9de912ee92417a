// One ALSA playback PCM, opened and set up for one format: writes that never block, drops, drains,
// and the repair of what a device does meanwhile (underrun, suspension), state by state.
//
// Threads     the loop's only.
// Errors      logged here, then returned as false or none: a suspended or vanished device without a
//             line. Null arguments are fatal.
// Waits       opening, preparing, starting, pausing, dropping, draining and closing are held to a
//             time (bounded_handle.h). Until the call that was late returns the PCM is away, and
//             everything fails.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>

#include "common/released_by.h"
#include "media/sink/alsa/alsa_utilities.h"
#include "sdk/nuvio_connect.h"

struct alsa_pcm;

// Opens the device in blocking mode and sets it up: interleaved, resampling allowed, all the rest
// ALSA's defaults. Null when it cannot be opened or refuses the format.
alsa_pcm* alsa_pcm_new(const char* device, const nuv_audio_format* format);
// What is queued is lost. Null does nothing.
void alsa_pcm_free(alsa_pcm* self);

// For who watches the PCM's descriptors. The callback comes once each time the PCM goes away, from
// inside the call that did not return, and calls nothing of this header. The descriptors stay open,
// but until the PCM is back their events are of no use.
struct alsa_pcm_away_listener {
    void* user_data;
    void (*away_callback)(void* user_data);  // null: nobody listens
};
void alsa_pcm_set_away_listener(alsa_pcm* self, alsa_pcm_away_listener listener);

// Borrowed: for its descriptors. It stays the PCM's to close. Null while it is away.
snd_pcm_t* alsa_pcm_get_handle(alsa_pcm* self);
// Disconnected while it is away.
snd_pcm_state_t alsa_pcm_get_state(alsa_pcm* self);
// Bytes of one frame.
size_t alsa_pcm_get_frame_size(const alsa_pcm* self);

// How much audio the device holds at most, in ms. 0 while it is away.
uint64_t alsa_pcm_get_buffer_duration(alsa_pcm* self);

// Brings a PCM that was dropped or ran dry back to where it can be written, and sees to it that the
// server behind one that was prepared a while ago still answers. False when it is in a state that
// this does not repair.
bool alsa_audio_sink_ensure_pcm_has_runnable_state(alsa_pcm* self);
// Repairs after a call that failed with `error`. True: that call may be made again.
bool alsa_audio_sink_recover_pcm(alsa_pcm* self, int error);

// Frames that a write takes now.
std::optional<size_t> alsa_audio_sink_get_available_space(alsa_pcm* self);
// Frames written and not yet heard.
std::optional<size_t> alsa_pcm_get_delay(alsa_pcm* self);

// Writes all the frames, for which there is room, repairing the PCM when it fails, and starts it.
// `what` completes the log lines: "data to". False when it has failed for good.
bool alsa_pcm_write(alsa_pcm* self, const void* data, size_t frames, const char* what);
// Part of the interface; only a pause writes silence, and this program makes none of those.
bool alsa_audio_sink_write_silence(alsa_pcm* self, unsigned duration_ms);

// Drops what is queued and makes the PCM ready again.
bool alsa_pcm_drop(alsa_pcm* self);
// Pauses or goes on: ALSA's result.
int alsa_pcm_pause(alsa_pcm* self, bool paused);
// Blocks until what is queued has been heard, at most a second longer than the device can hold.
bool alsa_pcm_drain(alsa_pcm* self);

using alsa_pcm_ptr = std::unique_ptr<alsa_pcm, nuvio::ReleasedBy<alsa_pcm_free>>;
