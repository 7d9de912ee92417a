// What every way through the renderer ends in: stop, error stop, reports, timers.
#include <cstdio>

#include "bridge/host_hooks.h"
#include "media/audio_renderer_private.h"
#include "utility/log_delegate.h"

bool playback_paused = false;

bool audio_renderer_is_allowed(const audio_renderer* self, const char* call,
                               std::initializer_list<audio_renderer_state> states) {
    for (const audio_renderer_state state : states) {
        if (state == self->state) {
            return true;
        }
    }
    app_log(LOG_LEVEL_ERROR, "Ignoring %s: not allowed while %s", call,
            audio_renderer_state_name(self->state));
    return false;
}

void audio_renderer_pause_timers(audio_renderer* self) {
    uv_pausable_timer_pause(self->playback_nearly_finished_timer.get());
    uv_pausable_timer_pause(self->playback_finished_timer.get());
}

void audio_renderer_resume_timers(audio_renderer* self) {
    uv_pausable_timer_resume(self->playback_nearly_finished_timer.get());
    uv_pausable_timer_resume(self->playback_finished_timer.get());
}

void audio_renderer_stop_timers(audio_renderer* self) {
    uv_pausable_timer_stop(self->playback_nearly_finished_timer.get());
    uv_pausable_timer_stop(self->playback_finished_timer.get());
}

bool audio_renderer_check_notified(nuv_error error, const char* what) {
    if (error != NUV_ERROR_OK) {
        app_log(LOG_LEVEL_ERROR, "Failed to notify Nuvio Connect of %s: %s", what,
                nuv_error_to_string(error));
    }
    return error == NUV_ERROR_OK;
}

const char* audio_renderer_state_name(audio_renderer_state state) {
    switch (state) {
        case AUDIO_RENDERER_STATE_STOPPED:
            return "stopped";
        case AUDIO_RENDERER_STATE_PLAYING:
            return "playing";
        case AUDIO_RENDERER_STATE_PLAYING_SEEKING:
            return "playing and seeking";
        case AUDIO_RENDERER_STATE_PAUSED:
            return "paused";
        case AUDIO_RENDERER_STATE_PAUSED_SEEKING:
            return "paused and seeking";
    }
    return "in an unknown state";
}

void audio_renderer_do_stop_playback(audio_renderer* self) {
    if (self->playing_source != nullptr) {
        audio_source_pause(self->playing_source);
        self->playing_source = nullptr;
    }
    audio_renderer_stop_timers(self);
    audio_sink_close(self->sink.get());
    playback_paused = false;
    self->next_source_is_track = false;
    self->state = AUDIO_RENDERER_STATE_STOPPED;
}

void audio_renderer_stop_and_report_playback_error(audio_renderer* self) {
    playback_paused = false;
    audio_renderer_do_stop_playback(self);
    audio_renderer_check_notified(nuv_connect_notify_playback_error(self->core), "playback error");
}

void audio_renderer_report_playback_status(nuv_connect* core) {
    nuv_playback_state state = NUV_PLAYBACK_STATE_STOPPED;
    const nuv_error error = nuv_connect_get_playback_state(core, &state);
    if (error != NUV_ERROR_OK) {
        app_log(LOG_LEVEL_ERROR, "Failed to notify Nuvio Connect: %s", nuv_error_to_string(error));
        return;
    }
    std::printf("playback_status = %d\n", static_cast<int>(state));
    host_report_playback_status(state);
}
