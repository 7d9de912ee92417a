#include "media/audio_renderer.h"

#include <memory>

#include "bridge/host_hooks.h"
#include "media/audio_renderer_private.h"
#include "utility/check.h"
#include "utility/log_delegate.h"

namespace {

const char* bool_text(bool value) {
    return value ? "true" : "false";
}

void push_volume(audio_renderer* self, uint32_t volume) {
    const nuv_error error = nuv_connect_set_volume(self->core, volume);
    if (error != NUV_ERROR_OK) {
        app_log(LOG_LEVEL_ERROR, "Failed to set Nuvio Connect's volume to %u: %s", volume,
                nuv_error_to_string(error));
    }
}

void push_mute_state(audio_renderer* self, bool muted) {
    const nuv_error error = nuv_connect_set_mute_state(self->core, muted);
    if (error != NUV_ERROR_OK) {
        app_log(LOG_LEVEL_ERROR, "Failed to set Nuvio Connect's mute state to %s: %s",
                bool_text(muted), nuv_error_to_string(error));
    }
}

// ---- Media delegate: playback ------------------------------------------------------------------

void refuse_initiation(audio_renderer* self) {
    app_log(LOG_LEVEL_ERROR, "Starting playback, check host didn't allow the nuvio connect source");
    audio_renderer_stop_and_report_playback_error(self);
    const nuv_error error = nuv_connect_deactivate_and_disconnect_renderer(self->core);
    if (error != NUV_ERROR_OK) {
        app_log(LOG_LEVEL_ERROR, "Failed to deactivate and disconnect renderer: %s",
                nuv_error_to_string(error));
    }
    app_log(LOG_LEVEL_INFO, "Playback stopped and renderer disconnected");
}

// Opens the sink for the active source and makes that the playing source.
bool prepare_active_source(audio_renderer* self) {
    audio_source* active = active_source_of(self);
    if (active == nullptr) {
        app_log(LOG_LEVEL_ERROR, "Playback was initiated without an audio stream");
        return false;
    }
    NUV_CHECK(!audio_sink_is_open(self->sink.get()));
    if (!audio_sink_open(self->sink.get(), audio_source_get_format(active))) {
        return false;
    }
    self->playing_source = active;
    return true;
}

bool enter_initial_state(audio_renderer* self, nuv_playback_state initial_state) {
    switch (initial_state) {
        case NUV_PLAYBACK_STATE_PLAYING:
            self->state = AUDIO_RENDERER_STATE_PLAYING;
            audio_source_resume(self->playing_source);
            return true;
        case NUV_PLAYBACK_STATE_PAUSED:
            self->state = AUDIO_RENDERER_STATE_PAUSED;
            return true;
        case NUV_PLAYBACK_STATE_STOPPED:
            break;
    }
    app_log(LOG_LEVEL_ERROR,
            "Playback was initiated into a state that is not playing or paused: %d",
            static_cast<int>(initial_state));
    return false;
}

bool notify_initiated(audio_renderer* self) {
    const nuv_audio_format format = *audio_source_get_format(self->playing_source);
    return audio_renderer_check_notified(nuv_connect_notify_playback_initiated(self->core, format),
                                         "initiating playback");
}

void audio_renderer_initiate_playback(nuv_connect* core, nuv_playback_state initial_state,
                                      void* renderer) {
    audio_renderer* self = renderer_of(renderer, core);
    if (!audio_renderer_is_allowed(self, "initiate playback", {AUDIO_RENDERER_STATE_STOPPED})) {
        return;
    }
    app_log(LOG_LEVEL_INFO, "Initiating playback, initial state: %s",
            nuv_playback_state_to_string(initial_state));
    playback_paused = false;
    app_log(LOG_LEVEL_INFO, "Starting playback, check host allow the source");
    if (!host_allow_source()) {
        refuse_initiation(self);
        return;
    }
    if (!prepare_active_source(self) || !enter_initial_state(self, initial_state)) {
        audio_renderer_stop_and_report_playback_error(self);
        return;
    }
    if (self->state == AUDIO_RENDERER_STATE_STOPPED) {
        return;  // data came at once, and the failure to play it has been reported
    }
    if (!notify_initiated(self)) {
        audio_renderer_stop_and_report_playback_error(self);
        return;
    }
    audio_renderer_schedule_overdue_end_of_track(self);
}

void audio_renderer_pause_playback(nuv_connect* core, void* renderer) {
    audio_renderer* self = renderer_of(renderer, core);
    if (!audio_renderer_is_allowed(self, "pause playback", {AUDIO_RENDERER_STATE_PLAYING})) {
        return;
    }
    app_log(LOG_LEVEL_INFO, "Pausing playback");
    playback_paused = true;
    audio_sink_flush(self->sink.get());
    audio_source_pause(self->playing_source);
    audio_renderer_pause_timers(self);
    self->state = AUDIO_RENDERER_STATE_PAUSED;
    audio_renderer_check_notified(nuv_connect_notify_playback_paused(core), "playback pausing");
}

void audio_renderer_resume_playback(nuv_connect* core, void* renderer) {
    audio_renderer* self = renderer_of(renderer, core);
    if (!audio_renderer_is_allowed(self, "resume playback", {AUDIO_RENDERER_STATE_PAUSED})) {
        return;
    }
    app_log(LOG_LEVEL_INFO, "Resuming playback");
    playback_paused = false;
    self->state = AUDIO_RENDERER_STATE_PLAYING;
    audio_renderer_resume_timers(self);
    audio_source_resume(self->playing_source);
    if (self->state == AUDIO_RENDERER_STATE_STOPPED) {
        return;  // as above
    }
    audio_renderer_check_notified(nuv_connect_notify_playback_resumed(core), "playback resuming");
}

void audio_renderer_stop_playback(nuv_connect* core, void* renderer) {
    audio_renderer* self = renderer_of(renderer, core);
    if (!audio_renderer_is_allowed(
            self, "stop playback",
            {AUDIO_RENDERER_STATE_PLAYING, AUDIO_RENDERER_STATE_PLAYING_SEEKING,
             AUDIO_RENDERER_STATE_PAUSED, AUDIO_RENDERER_STATE_PAUSED_SEEKING})) {
        return;
    }
    app_log(LOG_LEVEL_INFO, "Stopping playback");
    audio_renderer_do_stop_playback(self);
    audio_renderer_check_notified(nuv_connect_notify_playback_stopped(core), "playback stopping");
}

// A seek is for the track that plays. During a hand-over that is still the active source, and the
// next one has to wait again.
void fall_back_to_active_source(audio_renderer* self) {
    audio_source* active = active_source_of(self);
    NUV_CHECK(active != NULL);
    NUV_CHECK(self->playing_source != NULL);
    if (is_handing_over(self)) {
        audio_source_pause(self->playing_source);
        self->playing_source = active;
    }
}

void audio_renderer_seek_in_progress(nuv_connect* core, void* renderer) {
    audio_renderer* self = renderer_of(renderer, core);
    if (!audio_renderer_is_allowed(self, "seek in progress",
                                   {AUDIO_RENDERER_STATE_PLAYING, AUDIO_RENDERER_STATE_PAUSED})) {
        return;
    }
    app_log(LOG_LEVEL_INFO, "Seek is in progress");
    self->seek_position = audio_renderer_calculate_playback_position(self);
    audio_sink_flush(self->sink.get());
    fall_back_to_active_source(self);
    audio_renderer_stop_timers(self);
    self->state = self->state == AUDIO_RENDERER_STATE_PLAYING ? AUDIO_RENDERER_STATE_PLAYING_SEEKING
                                                              : AUDIO_RENDERER_STATE_PAUSED_SEEKING;
}

bool is_seeking(const audio_renderer* self) {
    return self->state == AUDIO_RENDERER_STATE_PLAYING_SEEKING ||
           self->state == AUDIO_RENDERER_STATE_PAUSED_SEEKING;
}

uint64_t audio_renderer_get_playback_position(nuv_connect* core, void* renderer) {
    audio_renderer* self = renderer_of(renderer, core);
    if (!audio_sink_is_open(self->sink.get())) {
        app_log(LOG_LEVEL_DEBUG, "Audio sink is not open, returning playback position 0");
        return 0;
    }
    return is_seeking(self) ? self->seek_position
                            : audio_renderer_calculate_playback_position(self);
}

// ---- Media delegate: notifications -------------------------------------------------------------

void audio_renderer_playback_volume_changed(nuv_connect* core, uint32_t volume, void* renderer) {
    audio_renderer* self = renderer_of(renderer, core);
    app_log(LOG_LEVEL_INFO, "Playback volume changed: %u", volume);
    host_report_volume();
    audio_sink_set_volume(self->sink.get(), volume);
}

void audio_renderer_playback_mute_state_changed(nuv_connect* core, bool muted, void* renderer) {
    audio_renderer* self = renderer_of(renderer, core);
    app_log(LOG_LEVEL_INFO, "Playback mute state changed: %u", static_cast<unsigned>(muted));
    host_report_mute_state();
    audio_sink_set_mute_state(self->sink.get(), muted);
}

void audio_renderer_playback_state_changed(nuv_connect* core, nuv_playback_state state,
                                           void* renderer) {
    renderer_of(renderer, core);
    app_log(LOG_LEVEL_INFO, "Playback state changed: %s", nuv_playback_state_to_string(state));
    audio_renderer_report_playback_status(core);
}

void audio_renderer_maximum_audio_quality_changed(nuv_connect* core, nuv_audio_quality quality,
                                                  void* renderer) {
    renderer_of(renderer, core);
    app_log(LOG_LEVEL_INFO, "Maximum audio quality has changed: %s",
            nuv_audio_quality_to_string(quality));
}

void audio_renderer_playback_controls_changed(nuv_connect* core, nuv_loop_mode loop_mode,
                                              bool shuffle, void* renderer) {
    renderer_of(renderer, core);
    app_log(LOG_LEVEL_INFO, "Playback controls changed, loop mode: %s, shuffle mode: %s",
            nuv_loop_mode_to_string(loop_mode), shuffle ? "enabled" : "disabled");
    host_report_shuffle_repeat();
}

void audio_renderer_playback_actions_availability_changed(nuv_connect* core, bool next_available,
                                                          void* renderer) {
    renderer_of(renderer, core);
    app_log(LOG_LEVEL_INFO, "Playback actions availability changed, next: %s",
            next_available ? "available" : "not available");
}

// ---- Sink listener -----------------------------------------------------------------------------

void audio_renderer_on_audio_sink_volume_changed(audio_sink* sink, uint32_t volume,
                                                 void* renderer) {
    audio_renderer* self = renderer_of(renderer, sink);
    app_log(LOG_LEVEL_TRACE, "Volume changed: %u", volume);
    push_volume(self, volume);
}

void audio_renderer_on_audio_sink_mute_state_changed(audio_sink* sink, bool muted, void* renderer) {
    audio_renderer* self = renderer_of(renderer, sink);
    app_log(LOG_LEVEL_TRACE, "Mute state changed: %s", bool_text(muted));
    push_mute_state(self, muted);
}

}  // namespace

// ---- Life and wiring ---------------------------------------------------------------------------

audio_renderer* audio_renderer_new(uv_loop_t* event_loop, const char* output_device,
                                   const char* volume_control_device,
                                   const char* volume_control_element) {
    NUV_CHECK(event_loop != NULL);
    NUV_CHECK(output_device != NULL);
    NUV_CHECK(volume_control_device != NULL);
    NUV_CHECK(volume_control_element != NULL);
    auto self = std::make_unique<audio_renderer>();
    self->source_manager.reset(
        audio_source_manager_new({self.get(), audio_renderer_on_audio_source_manager_new_source,
                                  audio_renderer_on_audio_source_manager_sources_moved_up}));
    self->sink.reset(
        audio_sink_new(event_loop, output_device, volume_control_device, volume_control_element));
    if (!self->sink) {
        return nullptr;
    }
    self->playback_nearly_finished_timer.reset(uv_pausable_timer_new(event_loop, self.get()));
    self->playback_finished_timer.reset(uv_pausable_timer_new(event_loop, self.get()));
    audio_sink_set_event_listener(self->sink.get(), self.get(),
                                  audio_renderer_on_audio_sink_space_available,
                                  audio_renderer_on_audio_sink_volume_changed,
                                  audio_renderer_on_audio_sink_mute_state_changed);
    return self.release();
}

void audio_renderer_free(audio_renderer* self) {
    NUV_CHECK(self != NULL);
    self->playback_nearly_finished_timer.reset();
    self->playback_finished_timer.reset();
    self->source_manager.reset();
    self->sink.reset();
    delete self;
}

void audio_renderer_set_core(audio_renderer* self, nuv_connect* core) {
    NUV_CHECK(self != NULL);
    NUV_CHECK(core != NULL);
    self->core = core;
    audio_source_manager_set_core(self->source_manager.get(), core);
    push_volume(self, audio_sink_get_volume(self->sink.get()));
    push_mute_state(self, audio_sink_get_mute_state(self->sink.get()));
}

nuv_audio_stream_delegate audio_renderer_get_audio_stream_delegate(audio_renderer* self) {
    NUV_CHECK(self != NULL);
    return audio_source_manager_get_audio_stream_delegate(self->source_manager.get());
}

nuv_media_delegate audio_renderer_get_media_delegate(audio_renderer* self) {
    NUV_CHECK(self != NULL);
    return {self,
            audio_renderer_initiate_playback,
            audio_renderer_pause_playback,
            audio_renderer_resume_playback,
            audio_renderer_stop_playback,
            audio_renderer_seek_in_progress,
            audio_renderer_get_playback_position,
            audio_renderer_playback_volume_changed,
            audio_renderer_playback_mute_state_changed,
            audio_renderer_playback_state_changed,
            audio_renderer_maximum_audio_quality_changed,
            audio_renderer_playback_controls_changed,
            audio_renderer_playback_actions_availability_changed};
}

nuv_audio_quality audio_renderer_get_maximum_supported_audio_quality(audio_renderer* self) {
    NUV_CHECK(self != NULL);
    return audio_sink_get_maximum_supported_audio_quality(self->sink.get());
}

// ---- Queries about the playing source ----------------------------------------------------------

nuv_stream_metadata* callmetadata(nuv_connect* core, audio_renderer* self) {
    NUV_CHECK(core != NULL);
    NUV_CHECK(self != NULL);
    if (self->playing_source == nullptr) {
        return nullptr;
    }
    auto metadata = std::make_unique<nuv_stream_metadata>();
    const nuv_error error = nuv_connect_get_stream_metadata(
        core, audio_source_get_id(self->playing_source), metadata.get());
    if (error != NUV_ERROR_OK) {
        app_log(LOG_LEVEL_ERROR, "Failed to notify Nuvio Connect Metadata: %s err = %d",
                nuv_error_to_string(error), static_cast<int>(error));
        return nullptr;
    }
    return metadata.release();
}

void audio_renderer_get_playing_format(nuv_audio_format* out, audio_renderer* self) {
    NUV_CHECK(out != NULL);
    NUV_CHECK(self != NULL);
    NUV_CHECK(self->playing_source != NULL);
    *out = *audio_source_get_format(self->playing_source);
}

uint64_t audio_renderer_get_playing_duration(audio_renderer* self) {
    NUV_CHECK(self != NULL);
    NUV_CHECK(self->playing_source != NULL);
    return audio_source_get_duration(self->playing_source);
}
