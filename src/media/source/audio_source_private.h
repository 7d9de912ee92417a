// The record behind audio_source.h, for the source and its manager only.
#pragma once

#include "media/source/audio_source.h"

struct audio_source_manager;

struct audio_source_event_listener {
    void* listener = nullptr;
    audio_source_data_produced_callback data_produced = nullptr;
    audio_source_state_changed_callback state_changed = nullptr;
    audio_source_seek_complete_callback seek_complete = nullptr;
    audio_source_dispose_callback dispose = nullptr;
};

// Lives in its manager's list, which is its owner.
struct audio_source {
    audio_source_manager* manager = nullptr;  // the owner
    uint64_t id = 0;
    nuv_audio_format format{};
    uint64_t duration = 0;  // ms
    audio_source_state state = AUDIO_SOURCE_STATE_STREAMING;
    bool delivery_active = false;
    uint64_t bytes_consumed = 0;
    audio_source_event_listener event_listener;
};

// Stores a state that differs from the current one and tells the listener.
void audio_source_set_state(audio_source* self, audio_source_state new_state);
// Counts everything before the position (ms) as consumed.
void audio_source_update_consumed_bytes_from_position(audio_source* self, uint64_t position_ms);
