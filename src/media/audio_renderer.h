// The audio renderer: plays the SDK's PCM streams on the ALSA sink and keeps SDK, device and host
// in step.
//
// It implements the SDK's media delegate, owns the source manager (which implements the audio
// stream delegate) and the sink, and calls the host hooks. There is no buffer between the SDK and
// ALSA: what ALSA has no room for is left with the SDK, which offers it again.
//
// Creation    audio_renderer_new; null when the sink cannot be made. audio_renderer_set_core before
//             the loop delivers the first delegate.
// Destruction audio_renderer_free, after the core is gone; timers and pollers finish closing on a
//             later pass of the loop.
// Threads     every function and callback: the loop thread only. No locks.
// Errors      a device or SDK call that fails is logged; one that ends playback is reported to the
//             SDK as a playback error. Delegate calls in a state where the SDK's contract does not
//             allow them are logged and ignored. A null argument is fatal everywhere.
#pragma once

#include <uv.h>

#include <cstdint>

#include "sdk/nuvio_connect.h"

struct audio_renderer;

// The names are copied.
audio_renderer* audio_renderer_new(uv_loop_t* event_loop, const char* output_device,
                                   const char* volume_control_device,
                                   const char* volume_control_element);
void audio_renderer_free(audio_renderer* self);

// Borrows the core and pushes the device's volume and mute state into it.
void audio_renderer_set_core(audio_renderer* self, nuv_connect* core);

nuv_audio_stream_delegate audio_renderer_get_audio_stream_delegate(audio_renderer* self);
nuv_media_delegate audio_renderer_get_media_delegate(audio_renderer* self);
nuv_audio_quality audio_renderer_get_maximum_supported_audio_quality(audio_renderer* self);

// Metadata of the playing source. Null without one, or when the SDK has none (logged). The caller
// deletes the record; its texts belong to the core and are valid until the stream is disposed of,
// so they are copied before the loop goes on.
nuv_stream_metadata* callmetadata(nuv_connect* core, audio_renderer* self);
// Format and duration (ms) of the playing source, which must exist: call after callmetadata
// returned a record, on the same pass of the loop.
void audio_renderer_get_playing_format(nuv_audio_format* out, audio_renderer* self);
uint64_t audio_renderer_get_playing_duration(audio_renderer* self);
