// One audio stream that the SDK delivers, as the renderer sees it.
//
// Creation    by the source manager, when the SDK starts the stream.
// Destruction by the source manager, when the SDK disposes of it: right after the listener's
//             dispose callback a borrowed pointer is dead.
// Threads     every function and callback: the loop thread only. No locks.
// Delivery    a source starts closed. The SDK offers PCM only while the source is open, and the
//             manager closes it by itself after an offer that was not taken whole.
// Errors      a null argument is fatal everywhere.
#pragma once

#include <cstddef>
#include <cstdint>

#include "sdk/nuvio_connect.h"

struct audio_source;

enum audio_source_state : uint32_t {
    AUDIO_SOURCE_STATE_STREAMING = 0,  // the SDK has data left to deliver; also after a seek
    AUDIO_SOURCE_STATE_FINISHED = 1    // the SDK has delivered the whole stream
};

// Takes as much of the size > 0 bytes of PCM as there is room for and returns that many bytes. The
// data is valid during the call only. May not allocate or block; may pause the source.
using audio_source_data_produced_callback = size_t (*)(audio_source* source, const void* data,
                                                       size_t size, void* listener);
using audio_source_state_changed_callback = void (*)(audio_source* source,
                                                     audio_source_state new_state,
                                                     audio_source_state old_state, void* listener);
// The SDK has moved the stream: what it delivers from now on starts at the new position.
using audio_source_seek_complete_callback = void (*)(audio_source* source, void* listener);
// The source is about to go. The manager's designations still include it.
using audio_source_dispose_callback = void (*)(audio_source* source, void* listener);

uint64_t audio_source_get_id(const audio_source* self);
// Valid as long as the source.
const nuv_audio_format* audio_source_get_format(const audio_source* self);
uint64_t audio_source_get_duration(const audio_source* self);  // ms
audio_source_state audio_source_get_state(const audio_source* self);
// Bytes from the start of the track that count as played or queued.
uint64_t audio_source_get_bytes_consumed(const audio_source* self);

// Replaces the former listener. The listener is borrowed; each callback may be null.
void audio_source_set_event_listener(audio_source* self, void* listener,
                                     audio_source_data_produced_callback data_produced,
                                     audio_source_state_changed_callback state_changed,
                                     audio_source_seek_complete_callback seek_complete,
                                     audio_source_dispose_callback dispose);

// Whether the manager designates this source as the active or as the next one.
bool audio_source_is_active(const audio_source* self);
bool audio_source_is_next(const audio_source* self);

// Closes the delivery. The SDK learns of it from the count it gets back for its next offer.
void audio_source_pause(audio_source* self);
// Opens a closed delivery, through the SDK; an open one stays as it is. A failure is logged, and
// the source counts as open all the same.
void audio_source_resume(audio_source* self);
