// The renderer's record and the steps its files share:
//
//   audio_renderer.cpp     life, SDK delegate, playback states, volume and mute
//   data_flow.cpp          the sources' callbacks and the sink's room
//   track_transition.cpp   the end-of-track timers and the change to the next track
//   playback_position.cpp  how far the track has been heard, told to the SDK and to the host
//   renderer_steps.cpp     stop, error stop, reports, timers
//
// Each file calls only those below it.
//
// In STOPPED the sink is closed and there is no playing source; in every other state the sink is
// open, and the playing source is the manager's active source or, once the next track flows, its
// next one.
#pragma once

#include <initializer_list>
#include <memory>

#include "common/released_by.h"
#include "media/audio_renderer.h"
#include "media/sink/alsa/alsa_audio_sink.h"
#include "media/source/audio_source_manager.h"
#include "utility/check.h"
#include "utility/uv_utilities.h"

enum audio_renderer_state : uint32_t {
    AUDIO_RENDERER_STATE_STOPPED = 0,
    AUDIO_RENDERER_STATE_PLAYING = 1,
    AUDIO_RENDERER_STATE_PLAYING_SEEKING = 2,  // from the announcement of a seek to its completion
    AUDIO_RENDERER_STATE_PAUSED = 3,           // delivery and timers paused
    AUDIO_RENDERER_STATE_PAUSED_SEEKING = 4
};

using source_manager_ptr =
    std::unique_ptr<audio_source_manager, nuvio::ReleasedBy<audio_source_manager_free>>;
using sink_ptr = std::unique_ptr<audio_sink, nuvio::ReleasedBy<audio_sink_free>>;
using pausable_timer_ptr =
    std::unique_ptr<uv_pausable_timer_t, nuvio::ReleasedBy<uv_pausable_timer_free>>;

struct audio_renderer {
    audio_renderer_state state = AUDIO_RENDERER_STATE_STOPPED;
    nuv_connect* core = nullptr;  // borrowed
    source_manager_ptr source_manager;
    sink_ptr sink;
    audio_source* playing_source = nullptr;  // borrowed from the manager
    pausable_timer_ptr playback_nearly_finished_timer;
    pausable_timer_ptr playback_finished_timer;
    bool is_late = false;        // the device, for the end of the active source
    uint64_t awaited_rest = 0;   // ms; of a late one, when its end was looked at last
    uint64_t seek_position = 0;  // ms; where the seek in progress began
    // Which source is the track that plays: false, the active one; true, the next one, for the end
    // of the active one has been told to the SDK and its disposal is awaited.
    bool next_source_is_track = false;
};

inline audio_source* active_source_of(const audio_renderer* self) {
    return audio_source_manager_get_active_source(self->source_manager.get());
}

// The next source flows behind the tail of the track that still plays.
inline bool is_handing_over(const audio_renderer* self) {
    return self->playing_source != active_source_of(self) && !self->next_source_is_track;
}

// The renderer of a callback, checked to be the one that belongs to the caller.
inline audio_renderer* renderer_of(void* context, const char* caller = __builtin_FUNCTION()) {
    auto* self = static_cast<audio_renderer*>(context);
    NUV_CHECK_OF(caller, self != NULL);
    return self;
}

inline audio_renderer* renderer_of(void* context, const nuv_connect* core,
                                   const char* caller = __builtin_FUNCTION()) {
    audio_renderer* self = renderer_of(context, caller);
    NUV_CHECK_OF(caller, core == self->core);
    return self;
}

inline audio_renderer* renderer_of(void* context, const audio_sink* sink,
                                   const char* caller = __builtin_FUNCTION()) {
    audio_renderer* self = renderer_of(context, caller);
    NUV_CHECK_OF(caller, sink == self->sink.get());
    return self;
}

// Loop thread only, like everything here.
extern bool playback_paused;               // PCM of the playing source is refused
extern int32_t last_reported_position_ms;  // low 32 bits of what the host was told last

// ---- renderer_steps.cpp

const char* audio_renderer_state_name(audio_renderer_state state);
// Closes the sink and lets go of the playing source. Tells nobody.
void audio_renderer_do_stop_playback(audio_renderer* self);
// `what` completes the line "Failed to notify Nuvio Connect of ..."; true when it was taken.
bool audio_renderer_check_notified(nuv_error error, const char* what);
// The error stop: stops and tells the SDK that playback failed.
void audio_renderer_stop_and_report_playback_error(audio_renderer* self);
// Passes the SDK's playback state on to the host.
void audio_renderer_report_playback_status(nuv_connect* core);
// False, with a log line, for a call that the SDK must not make now.
bool audio_renderer_is_allowed(const audio_renderer* self, const char* call,
                               std::initializer_list<audio_renderer_state> states);
// All for both timers.
void audio_renderer_pause_timers(audio_renderer* self);
void audio_renderer_resume_timers(audio_renderer* self);
void audio_renderer_stop_timers(audio_renderer* self);

// ---- playback_position.cpp

// Audio in the sink that has not been heard, in ms; 0 when that is not known.
uint64_t audio_renderer_get_buffered_duration(audio_renderer* self);
// Position in the active source in ms, 0 when there is none. Reports it to the host, too.
uint64_t audio_renderer_calculate_playback_position(audio_renderer* self);
// Reports the position to the host when its whole second differs from the one reported last.
void updateCurrentPlaybackPosition(audio_renderer* self);

// ---- track_transition.cpp

bool audio_formats_are_same(const nuv_audio_format* format1, const nuv_audio_format* format2);
// An audio_source_state_changed_callback: arms the timers when the active source is finished.
void audio_renderer_on_audio_source_state_changed(audio_source* source,
                                                  audio_source_state new_state,
                                                  audio_source_state old_state, void* renderer);
// Arms the finished timer for the moment at which the sink has run out.
void audio_renderer_schedule_playback_finished_timer(audio_renderer* self);
// Arms the finished timer of a playing source that had finished before it became the active one,
// when no state change was left to arm it.
void audio_renderer_schedule_overdue_end_of_track(audio_renderer* self);
void audio_renderer_on_playback_nearly_finished_timer_timeout(uv_timer_t* timer);
void audio_renderer_on_playback_finished_timer_timeout(uv_timer_t* timer);
// In the hand-over interval (from 500 ms before the end of the active source to its end), lets a
// next source of the same format flow into the open sink.
void audio_renderer_maybe_start_streaming_from_next_source_if_gapless(audio_renderer* self);

// ---- data_flow.cpp

// The source manager's and the sink's callbacks.
void audio_renderer_on_audio_source_manager_new_source(audio_source_manager* manager,
                                                       audio_source* source, void* renderer);
void audio_renderer_on_audio_source_manager_sources_moved_up(audio_source_manager* manager,
                                                             bool active_changed, void* renderer);
void audio_renderer_on_audio_sink_space_available(audio_sink* sink, void* renderer);
