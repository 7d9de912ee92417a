// Keeps one audio_source per live stream of the SDK and says which of them is played now (the
// active one) and which comes after it (the next one).
//
// It implements the SDK's audio stream delegate and passes each stream's events to the listener of
// its source. The sources are kept in order of arrival; the active and the next one are the first
// two of them.
//
// Creation    audio_source_manager_new; audio_source_manager_set_core before the first delegate.
// Destruction audio_source_manager_free, after the core is gone.
// Threads     every function and callback: the loop thread only. No locks.
// Errors      a stream id that names no live stream is logged and ignored; a delegate call with
//             another core and a null argument are fatal.
// Data path   a delivery allocates nothing.
#pragma once

#include "media/source/audio_source.h"
#include "sdk/nuvio_connect.h"

struct audio_source_manager;

// A stream has started and has its designation. The callback sets the source's listener.
using audio_source_manager_new_source_callback = void (*)(audio_source_manager* manager,
                                                          audio_source* source, void* listener);
// The active or the next source went, and those behind it have moved up.
using audio_source_manager_sources_moved_up_callback = void (*)(audio_source_manager* manager,
                                                                bool active_changed,
                                                                void* listener);

struct audio_source_manager_event_listener {
    void* listener = nullptr;
    audio_source_manager_new_source_callback new_source_callback = nullptr;  // required
    audio_source_manager_sources_moved_up_callback sources_moved_up_callback = nullptr;
};

audio_source_manager* audio_source_manager_new(audio_source_manager_event_listener event_listener);
// Releases every source that is left and calls no listener.
void audio_source_manager_free(audio_source_manager* self);

// Borrows the core.
void audio_source_manager_set_core(audio_source_manager* self, nuv_connect* core);
nuv_connect* audio_source_manager_get_core(const audio_source_manager* self);

nuv_audio_stream_delegate audio_source_manager_get_audio_stream_delegate(
    audio_source_manager* self);

// Borrowed; null when there is none.
audio_source* audio_source_manager_get_active_source(const audio_source_manager* self);
audio_source* audio_source_manager_get_next_source(const audio_source_manager* self);
audio_source* audio_source_manager_get_source_by_stream_id(audio_source_manager* self,
                                                           uint64_t stream_id);
