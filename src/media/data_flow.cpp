// The listener of the sources and of the sink's room: what arrives is written, what the sink cannot
// take waits for its signal; sources come, move up and go.
#include <cinttypes>
#include <cstdio>

#include "media/audio_renderer_private.h"
#include "utility/check.h"
#include "utility/log_delegate.h"

namespace {

// The flag stays false when playback was initiated paused; a hand-over may open a delivery then.
bool refuses_data(const audio_renderer* self) {
    return playback_paused || self->state == AUDIO_RENDERER_STATE_PAUSED ||
           self->state == AUDIO_RENDERER_STATE_PAUSED_SEEKING;
}

size_t audio_renderer_on_audio_source_data_produced(audio_source* source, const void* data,
                                                    size_t size, void* renderer) {
    audio_renderer* self = renderer_of(renderer);
    if (source != self->playing_source) {
        app_log(LOG_LEVEL_ERROR, "Ignoring audio data of stream %" PRIu64 ", which is not playing",
                audio_source_get_id(source));
        return 0;
    }
    if (refuses_data(self)) {
        std::fputs("Audio playback is paused, return audio samples ", stdout);
        updateCurrentPlaybackPosition(self);
        return 0;
    }
    bool ok = false;
    const size_t written = audio_sink_write(self->sink.get(), data, size, &ok);
    if (!ok) {
        audio_renderer_stop_and_report_playback_error(self);
        return 0;
    }
    updateCurrentPlaybackPosition(self);
    return written;
}

void audio_renderer_on_audio_source_seek_complete(audio_source* /*source*/, void* renderer) {
    audio_renderer* self = renderer_of(renderer);
    if (!audio_renderer_is_allowed(
            self, "seek complete",
            {AUDIO_RENDERER_STATE_PLAYING_SEEKING, AUDIO_RENDERER_STATE_PAUSED_SEEKING})) {
        return;
    }
    app_log(LOG_LEVEL_DEBUG, "Seek has been completed");
    self->state = self->state == AUDIO_RENDERER_STATE_PLAYING_SEEKING ? AUDIO_RENDERER_STATE_PLAYING
                                                                      : AUDIO_RENDERER_STATE_PAUSED;
    self->seek_position = 0;
    // The sink's signal reopens a delivery that a short count closed. After a whole delivery no
    // signal is due, and a pause may have closed it since.
    if (self->state == AUDIO_RENDERER_STATE_PLAYING &&
        audio_source_get_state(self->playing_source) == AUDIO_SOURCE_STATE_FINISHED) {
        audio_source_resume(self->playing_source);
    }
}

// What a source is to the renderer when the SDK disposes of it.
enum class disposed {
    track_that_plays,      // must not happen: nothing is left to play
    next_that_flows,       // a hand-over is withdrawn
    track_that_ended,      // the usual one: the next source moves up
    track_before_its_end,  // handed over and gone early
    source_at_rest,        // nothing of it plays
};

disposed classify(const audio_renderer* self, const audio_source* source) {
    const bool is_active = audio_source_is_active(source);
    if (source == self->playing_source) {
        return is_active || self->next_source_is_track ? disposed::track_that_plays
                                                       : disposed::next_that_flows;
    }
    if (is_active && self->playing_source != nullptr) {
        return self->next_source_is_track ? disposed::track_that_ended
                                          : disposed::track_before_its_end;
    }
    return disposed::source_at_rest;
}

// The source is freed after this: the playing source must be another one, or none, by then.
void audio_renderer_on_audio_source_dispose(audio_source* source, void* renderer) {
    audio_renderer* self = renderer_of(renderer);
    switch (classify(self, source)) {
        case disposed::track_that_plays:
            app_log(LOG_LEVEL_ERROR,
                    "Audio stream %" PRIu64 " was disposed of while it was playing",
                    audio_source_get_id(source));
            audio_renderer_stop_and_report_playback_error(self);
            break;
        case disposed::next_that_flows:
            self->playing_source = active_source_of(self);
            NUV_CHECK(self->playing_source != NULL);
            break;
        case disposed::track_that_ended:
            self->next_source_is_track = false;
            break;
        case disposed::track_before_its_end:
            // What the timers wait for is not to come.
            audio_renderer_stop_timers(self);
            break;
        case disposed::source_at_rest:
            break;
    }
}

}  // namespace

void audio_renderer_on_audio_source_manager_new_source(audio_source_manager* manager,
                                                       audio_source* source, void* renderer) {
    audio_renderer* self = renderer_of(renderer);
    NUV_CHECK(manager == self->source_manager.get());
    audio_source_set_event_listener(source, self, audio_renderer_on_audio_source_data_produced,
                                    audio_renderer_on_audio_source_state_changed,
                                    audio_renderer_on_audio_source_seek_complete,
                                    audio_renderer_on_audio_source_dispose);
    audio_source_pause(source);
    if (audio_source_is_active(source)) {
        // It is the only source, and while one plays there is another.
        NUV_CHECK(self->state == AUDIO_RENDERER_STATE_STOPPED);
    } else if (audio_source_is_next(source)) {
        audio_renderer_maybe_start_streaming_from_next_source_if_gapless(self);
    }
}

void audio_renderer_on_audio_source_manager_sources_moved_up(audio_source_manager* manager,
                                                             bool active_changed, void* renderer) {
    audio_renderer* self = renderer_of(renderer);
    NUV_CHECK(manager == self->source_manager.get());
    if (active_changed) {
        audio_renderer_schedule_overdue_end_of_track(self);
    }
    audio_renderer_maybe_start_streaming_from_next_source_if_gapless(self);
}

void audio_renderer_on_audio_sink_space_available(audio_sink* sink, void* renderer) {
    audio_renderer* self = renderer_of(renderer, sink);
    if (self->playing_source != nullptr) {
        audio_source_resume(self->playing_source);
    }
}
