// When the active source has been delivered whole, its rest is in ALSA and runs out by itself. Two
// timers follow it: 500 ms before the end the next source of the same format starts to flow behind
// it (the hand-over), and at the end the SDK is told and the next track counts as begun.
//
// The SDK disposes of the ended source some time later, and only then does the next one become the
// active source. Its own end may come before that: it is kept back until the disposal.
#include <algorithm>
#include <cinttypes>

#include "media/audio_renderer_private.h"
#include "utility/check.h"
#include "utility/log_delegate.h"

namespace {

constexpr uint64_t kNearlyFinishedLeadMs = 500;
constexpr uint64_t kShortRestMs = 20;  // left to the drain
constexpr uint64_t kToleratedLatenessMs = 40;

audio_source* next_source_of(const audio_renderer* self) {
    return audio_source_manager_get_next_source(self->source_manager.get());
}

bool is_finished(const audio_source* source) {
    return source != nullptr && audio_source_get_state(source) == AUDIO_SOURCE_STATE_FINISHED;
}

bool is_armed(const pausable_timer_ptr& timer) {
    return uv_timer_is_active(&timer->timer);
}

bool is_paused(const pausable_timer_ptr& timer) {
    return uv_pausable_timer_is_paused(timer.get());
}

bool is_playing_or_paused(const audio_renderer* self) {
    return self->state == AUDIO_RENDERER_STATE_PLAYING ||
           self->state == AUDIO_RENDERER_STATE_PAUSED;
}

// Timers count from the loop's time, which is that of the pass's beginning; something may have
// blocked since.
void bring_loop_time_up_to_date(const audio_renderer* self) {
    uv_update_time(self->playback_finished_timer->timer.loop);
}

void schedule_playback_nearly_finished_timer(audio_renderer* self) {
    const uint64_t buffered = audio_renderer_get_buffered_duration(self);
    const uint64_t lead = buffered > kNearlyFinishedLeadMs ? buffered - kNearlyFinishedLeadMs : 0;
    app_log(LOG_LEVEL_DEBUG, "Scheduling playback nearly finished timer: %" PRIu64 "ms", lead);
    uv_pausable_timer_start(self->playback_nearly_finished_timer.get(),
                            audio_renderer_on_playback_nearly_finished_timer_timeout, lead, 0);
}

// Whether the nearly-finished point has been passed and the finished point has not.
bool is_in_hand_over_interval(const audio_renderer* self) {
    switch (self->state) {
        case AUDIO_RENDERER_STATE_PLAYING:
            return !is_armed(self->playback_nearly_finished_timer) &&
                   is_armed(self->playback_finished_timer);
        case AUDIO_RENDERER_STATE_PAUSED:
            return !is_paused(self->playback_nearly_finished_timer) &&
                   is_paused(self->playback_finished_timer);
        case AUDIO_RENDERER_STATE_STOPPED:
        case AUDIO_RENDERER_STATE_PLAYING_SEEKING:
        case AUDIO_RENDERER_STATE_PAUSED_SEEKING:
            break;
    }
    return false;
}

// Null, with a log line, when a timer fires while nothing plays.
audio_renderer* playing_renderer_of(uv_timer_t* timer, const char* point,
                                    const char* caller = __builtin_FUNCTION()) {
    NUV_CHECK_OF(caller, timer != NULL);
    auto* self = static_cast<audio_renderer*>(
        uv_handle_get_data(reinterpret_cast<const uv_handle_t*>(timer)));
    NUV_CHECK_OF(caller, self != NULL);
    if (self->state != AUDIO_RENDERER_STATE_PLAYING) {
        app_log(LOG_LEVEL_ERROR, "Playback is %s while %s, ignoring it", point,
                audio_renderer_state_name(self->state));
        return nullptr;
    }
    return self;
}

// The device takes longer than its rate let expect: it began late, stood still for a while or runs
// at another rate. Asked well before the end: at the end itself it may have run dry, and a device
// that is asked then has underrun.
bool is_late(audio_renderer* self) {
    const uint64_t expected = uv_timer_get_due_in(&self->playback_finished_timer->timer);
    const uint64_t rest = audio_renderer_get_buffered_duration(self);
    const bool stands_still = self->is_late && rest >= self->awaited_rest;
    return rest > expected + kToleratedLatenessMs && !stands_still;
}

// The device was late before. One that has not moved at all since is waited for no longer, and
// neither is one that holds frames of the next track as well, whose share is not known.
bool is_still_heard(audio_renderer* self) {
    if (!self->is_late || self->playing_source != active_source_of(self)) {
        return false;
    }
    const uint64_t rest = audio_renderer_get_buffered_duration(self);
    return rest > kShortRestMs && rest < self->awaited_rest;
}

// Not to the very end: the drain waits out the last bit, and the card does not run dry.
void wait_for_the_rest(audio_renderer* self) {
    bring_loop_time_up_to_date(self);
    self->is_late = true;
    self->awaited_rest = audio_renderer_get_buffered_duration(self);
    uv_pausable_timer_start(self->playback_finished_timer.get(),
                            audio_renderer_on_playback_finished_timer_timeout,
                            self->awaited_rest - std::min(self->awaited_rest, kShortRestMs), 0);
}

void start_playing(audio_renderer* self, audio_source* source) {
    self->playing_source = source;
    audio_source_resume(source);
}

void end_playback(audio_renderer* self) {
    app_log(LOG_LEVEL_INFO, "Nothing else to play, stopping playback");
    audio_sink_drain(self->sink.get());
    audio_renderer_do_stop_playback(self);
}

// `what` is for the log, should the SDK not take the notification; false then.
bool notify_next_track_initiated(audio_renderer* self, const audio_source* next, const char* what) {
    return audio_renderer_check_notified(
        nuv_connect_notify_playback_initiated(self->core, *audio_source_get_format(next)), what);
}

void change_track_with_new_format(audio_renderer* self, audio_source* next) {
    audio_sink_drain(self->sink.get());
    audio_sink_close(self->sink.get());
    playback_paused = false;
    if (!audio_sink_open(self->sink.get(), audio_source_get_format(next))) {
        audio_renderer_stop_and_report_playback_error(self);
        return;
    }
    start_playing(self, next);
    notify_next_track_initiated(self, next, "initiating playback (not gapless)");
}

void change_track_gaplessly(audio_renderer* self, audio_source* next) {
    // The hand-over has started the next source, unless it moved up too late to be seen there.
    if (self->playing_source != next) {
        start_playing(self, next);
    }
    if (!notify_next_track_initiated(self, next, "initiating playback (gapless)")) {
        return;
    }
    if (is_finished(next)) {
        audio_renderer_schedule_playback_finished_timer(self);
    }
}

}  // namespace

bool audio_formats_are_same(const nuv_audio_format* format1, const nuv_audio_format* format2) {
    NUV_CHECK(format1 != NULL);
    NUV_CHECK(format2 != NULL);
    return format1->sample_rate == format2->sample_rate &&
           format1->sample_format == format2->sample_format &&
           format1->channel_count == format2->channel_count;
}

void audio_renderer_on_audio_source_state_changed(audio_source* source,
                                                  audio_source_state new_state,
                                                  audio_source_state /*old_state*/,
                                                  void* renderer) {
    auto* self = static_cast<audio_renderer*>(renderer);
    NUV_CHECK(self != NULL);
    NUV_CHECK(source != NULL);
    if (!audio_source_is_active(source) || new_state != AUDIO_SOURCE_STATE_FINISHED) {
        return;
    }
    if (!is_playing_or_paused(self)) {
        app_log(LOG_LEVEL_WARNING,
                "Audio stream %" PRIu64 " finished while %s, its end is not awaited",
                audio_source_get_id(source), audio_renderer_state_name(self->state));
        return;
    }
    bring_loop_time_up_to_date(self);
    schedule_playback_nearly_finished_timer(self);
    audio_renderer_schedule_playback_finished_timer(self);
    if (self->state == AUDIO_RENDERER_STATE_PAUSED) {
        audio_renderer_pause_timers(self);
    }
}

void audio_renderer_schedule_playback_finished_timer(audio_renderer* self) {
    const uint64_t buffered = audio_renderer_get_buffered_duration(self);
    self->is_late = false;
    app_log(LOG_LEVEL_DEBUG, "Scheduling playback finished timer for: %" PRIu64 "ms", buffered);
    uv_pausable_timer_start(self->playback_finished_timer.get(),
                            audio_renderer_on_playback_finished_timer_timeout, buffered, 0);
}

void audio_renderer_schedule_overdue_end_of_track(audio_renderer* self) {
    const bool awaited =
        is_armed(self->playback_finished_timer) || is_paused(self->playback_finished_timer);
    const audio_source* active = active_source_of(self);
    if (!is_playing_or_paused(self) || self->playing_source != active || !is_finished(active) ||
        awaited) {
        return;
    }
    bring_loop_time_up_to_date(self);
    audio_renderer_schedule_playback_finished_timer(self);
    if (self->state == AUDIO_RENDERER_STATE_PAUSED) {
        audio_renderer_pause_timers(self);
    }
}

void audio_renderer_maybe_start_streaming_from_next_source_if_gapless(audio_renderer* self) {
    const audio_source* active = active_source_of(self);
    audio_source* next = next_source_of(self);
    if (active == nullptr || next == nullptr ||
        !audio_formats_are_same(audio_source_get_format(active), audio_source_get_format(next)) ||
        !is_in_hand_over_interval(self)) {
        return;
    }
    if (self->playing_source != active || !is_finished(active)) {
        return;
    }
    app_log(LOG_LEVEL_DEBUG,
            "Starting audio data flow from the next audio source to allow for gapless track "
            "transition");
    start_playing(self, next);
}

void audio_renderer_on_playback_nearly_finished_timer_timeout(uv_timer_t* timer) {
    audio_renderer* self = playing_renderer_of(timer, "nearly finished");
    if (self == nullptr) {
        return;
    }
    if (is_late(self)) {
        wait_for_the_rest(self);
        if (self->awaited_rest > kNearlyFinishedLeadMs + kToleratedLatenessMs) {
            schedule_playback_nearly_finished_timer(self);
            return;
        }
    }
    app_log(LOG_LEVEL_INFO, "Playback is nearly finished");
    audio_renderer_maybe_start_streaming_from_next_source_if_gapless(self);
}

void audio_renderer_on_playback_finished_timer_timeout(uv_timer_t* timer) {
    audio_renderer* self = playing_renderer_of(timer, "finished");
    if (self == nullptr) {
        return;
    }
    const audio_source* active = active_source_of(self);
    NUV_CHECK(active != NULL);
    if (self->next_source_is_track) {
        // The end is that of the next source. Its turn comes with the disposal of the active one.
        app_log(LOG_LEVEL_DEBUG,
                "Playback has finished before the previous stream was disposed of");
        return;
    }
    if (!is_finished(active)) {
        app_log(LOG_LEVEL_ERROR,
                "Playback is finished while audio stream %" PRIu64 " streams, ignoring it",
                audio_source_get_id(active));
        return;
    }
    if (is_still_heard(self)) {
        wait_for_the_rest(self);
        return;
    }
    app_log(LOG_LEVEL_INFO, "Playback has finished");
    audio_renderer_report_playback_status(self->core);
    audio_source* next = next_source_of(self);
    if (!audio_renderer_check_notified(
            nuv_connect_notify_playback_finished(self->core, next == nullptr),
            "playback finishing")) {
        return;
    }
    if (next == nullptr) {
        end_playback(self);
        return;
    }
    self->next_source_is_track = true;
    if (audio_formats_are_same(audio_source_get_format(active), audio_source_get_format(next))) {
        change_track_gaplessly(self, next);
    } else {
        change_track_with_new_format(self, next);
    }
}
