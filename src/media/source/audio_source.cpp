#include "media/source/audio_source.h"

#include <cinttypes>

#include "media/source/audio_source_manager.h"
#include "media/source/audio_source_private.h"
#include "utility/check.h"
#include "utility/log_delegate.h"

uint64_t audio_source_get_id(const audio_source* self) {
    NUV_CHECK(self != NULL);
    return self->id;
}

const nuv_audio_format* audio_source_get_format(const audio_source* self) {
    NUV_CHECK(self != NULL);
    return &self->format;
}

uint64_t audio_source_get_duration(const audio_source* self) {
    NUV_CHECK(self != NULL);
    return self->duration;
}

audio_source_state audio_source_get_state(const audio_source* self) {
    NUV_CHECK(self != NULL);
    return self->state;
}

uint64_t audio_source_get_bytes_consumed(const audio_source* self) {
    NUV_CHECK(self != NULL);
    return self->bytes_consumed;
}

void audio_source_set_event_listener(audio_source* self, void* listener,
                                     audio_source_data_produced_callback data_produced,
                                     audio_source_state_changed_callback state_changed,
                                     audio_source_seek_complete_callback seek_complete,
                                     audio_source_dispose_callback dispose) {
    NUV_CHECK(self != NULL);
    self->event_listener = {listener, data_produced, state_changed, seek_complete, dispose};
}

bool audio_source_is_active(const audio_source* self) {
    NUV_CHECK(self != NULL);
    return audio_source_manager_get_active_source(self->manager) == self;
}

bool audio_source_is_next(const audio_source* self) {
    NUV_CHECK(self != NULL);
    return audio_source_manager_get_next_source(self->manager) == self;
}

void audio_source_pause(audio_source* self) {
    NUV_CHECK(self != NULL);
    self->delivery_active = false;
}

void audio_source_resume(audio_source* self) {
    NUV_CHECK(self != NULL);
    if (self->delivery_active) {
        return;
    }
    self->delivery_active = true;
    nuv_connect* core = audio_source_manager_get_core(self->manager);
    if (nuv_connect_resume_audio_delivery(core, self->id) != NUV_ERROR_OK) {
        app_log(LOG_LEVEL_ERROR, "Failed to resume audio delivery of audio stream %" PRIu64,
                self->id);
    }
}

void audio_source_set_state(audio_source* self, audio_source_state new_state) {
    NUV_CHECK(self != NULL);
    if (new_state == self->state) {
        return;
    }
    const audio_source_state old_state = self->state;
    self->state = new_state;
    const audio_source_event_listener& to = self->event_listener;
    if (to.state_changed != nullptr) {
        to.state_changed(self, new_state, old_state, to.listener);
    }
}

void audio_source_update_consumed_bytes_from_position(audio_source* self, uint64_t position_ms) {
    NUV_CHECK(self != NULL);
    const uint64_t frames = self->format.sample_rate * position_ms / 1000;
    self->bytes_consumed = nuv_audio_sample_format_size(self->format.sample_format) * frames *
                           self->format.channel_count;
}
