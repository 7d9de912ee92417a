// The renderer's output: one ALSA playback PCM, opened per format, written without blocking and
// watched for room on the event loop, with the mixer element that carries volume and mute.
//
// Creation    audio_sink_new probes the device once and closes it again. Null when the device can
//             be opened but not queried, or is below 44.1 kHz/16 bit.
// Threads     every function: the loop thread only. Callbacks arrive there, from the loop, never
//             from inside a call of this header; they may call back into the sink, not free it.
// Units       sizes in bytes, counts in frames, volume in percent (0 to 100).
// Audio path  audio_sink_write copies nothing, allocates nothing and never blocks. audio_sink_drain
//             blocks until the queued audio has been heard.
// Errors      logged here, then returned as false, for a suspended or vanished PCM without a line;
//             an underrun is repaired by the next write. On a closed sink everything that needs
//             the PCM fails, logged. Null arguments and an empty write are fatal.
#pragma once

#include <uv.h>

#include <cstddef>
#include <cstdint>

#include "sdk/nuvio_connect.h"

struct audio_sink;

using audio_sink_space_available_callback = void (*)(audio_sink* sink, void* listener);
using audio_sink_volume_changed_callback = void (*)(audio_sink* sink, uint32_t volume,
                                                    void* listener);
using audio_sink_mute_state_changed_callback = void (*)(audio_sink* sink, bool muted,
                                                        void* listener);

// The device names are copied.
audio_sink* audio_sink_new(uv_loop_t* event_loop, const char* output_device,
                           const char* volume_control_device, const char* volume_control_element);
// Closes an open sink first.
void audio_sink_free(audio_sink* self);

// The listener is borrowed; each callback may be null.
void audio_sink_set_event_listener(audio_sink* self, void* listener,
                                   audio_sink_space_available_callback space_available,
                                   audio_sink_volume_changed_callback volume_changed,
                                   audio_sink_mute_state_changed_callback mute_state_changed);

// The quality to announce, from the platform's settings, read anew at each call; CD where they name
// no rule, whatever the hardware can do.
nuv_audio_quality audio_sink_get_maximum_supported_audio_quality(audio_sink* self);

bool audio_sink_is_open(const audio_sink* self);
// False, and the sink closed, when the device cannot be set up in this format; false, and the sink
// as it was, when it is open already.
bool audio_sink_open(audio_sink* self, const nuv_audio_format* format);
// Does nothing on a closed sink. What is queued is lost.
void audio_sink_close(audio_sink* self);

// Writes as many whole frames as ALSA has room for and returns their size in bytes. When not all
// was placed, the space-available callback follows once there is room, or once the device has
// failed and will never have any: the next write says so. *ok is false when the device has failed
// for good; nothing counts as written then.
size_t audio_sink_write(audio_sink* self, const void* data, size_t size, bool* ok);

// Part of the interface and not called by this program: the renderer pauses by a flush, and a PCM
// that nobody pauses is never flushed while paused.
bool audio_sink_pause(audio_sink* self);
bool audio_sink_resume(audio_sink* self);
// Drops what is queued; the PCM is ready for writing again, a paused one stays paused.
bool audio_sink_flush(audio_sink* self);
bool audio_sink_drain(audio_sink* self);

// Frames written and not yet heard. 0 and *ok false when the device does not tell.
uint64_t audio_sink_get_buffered_frame_count(audio_sink* self, bool* ok);

// 50 and unmuted where the device has no usable mixer element; the setters do nothing there. An
// element that went, with its card, and one that was never there, is looked for again by each open
// (one that went also by the setters, every 5 s);
// the callbacks tell the values of one that is found so for the first time.
uint32_t audio_sink_get_volume(audio_sink* self);
void audio_sink_set_volume(audio_sink* self, uint32_t volume);
bool audio_sink_get_mute_state(audio_sink* self);
void audio_sink_set_mute_state(audio_sink* self, bool muted);
