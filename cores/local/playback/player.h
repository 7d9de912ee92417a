// Plays a session on the device's renderer.
//
// The course says where it is to go (the session, the track, the goals: playing, paused or stopped,
// a position); the passes of the loop take the steps that lead there from what the renderer has
// confirmed (PlaybackState), on the streams of the queue (StreamQueue), as far as the renderer's
// present state allows. Samples are offered by Delivery.
//
// Loop thread only. Delegates are called from `advance` and `deliver` (and `apply`, which asks for
// the position), never from the notifications.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <utility>

#include "local/base/logger.h"
#include "local/network/remote_settings.h"
#include "local/playback/control.h"
#include "local/playback/course.h"
#include "local/playback/delivery.h"
#include "local/playback/pace.h"
#include "local/playback/playback_state.h"
#include "local/playback/session.h"
#include "local/playback/stream_queue.h"
#include "sdk/nuvio_connect.h"

namespace local_core {

// The track that is heard; the pointers hold until the next pass.
struct HeardTrack {
    size_t track;  // of the session
    const TrackInfo* info;
    const TrackTexts* texts;
};

class Player {
  public:
    // `on_change` comes from a decoding thread: the next pass has something to do.
    Player(const PlayerDelegates& delegates, Control& control,
           const std::shared_ptr<const Logger>& logger, std::function<void()> on_change);
    // Calls no delegate.
    ~Player();
    Player(const Player&) = delete;
    Player& operator=(const Player&) = delete;

    void apply(Command command) { m_course.apply(std::move(command)); }
    void set_modes(nuv_loop_mode loop_mode, bool shuffle) {
        m_course.set_modes(loop_mode, shuffle);
    }
    nuv_error edit(QueueEdit& edit) { return m_course.edit(edit); }

    // Takes the first step that is due; true when there was one.
    bool advance();
    // Offers each stream's data once; true when there may be more.
    bool deliver();

    // When the next pass has something to do although nothing has happened; none while nothing
    // plays.
    std::optional<Pace::Time> next_time() const { return m_delivery.next_time(); }
    // Passes over what does not answer; when to call it again, none where nothing is waited for.
    std::optional<std::chrono::steady_clock::time_point> give_up_hanging() {
        return m_streams.give_up_hanging(remote_request_defaults().give_up_after);
    }

    PlayerView view() const;
    // Null without one.
    const Session* session() const { return m_course.session(); }
    // None while nothing of the session is heard.
    std::optional<HeardTrack> heard() const;
    // The one that was over last; whether it is of the session that is joined.
    const std::optional<PlayedTrack>& last_played() const { return m_streams.last_played(); }
    bool has_played_last() const {
        const auto& played = last_played();
        return played && m_course.is_in_session(played->place);
    }
    // In the track that is heard; 0 without one. Calls a delegate.
    uint64_t position_ms() const;
    // The oldest that has not been taken.
    std::optional<Failure> take_failure() { return m_course.take_failure(); }
    // True, once, after the renderer has begun to play anew: everything about it is worth a report.
    bool take_fresh_start() { return m_playback.take_fresh_start(); }

    // From the renderer.
    nuv_error playback_initiated();
    nuv_error playback_paused();
    nuv_error playback_resumed();
    nuv_error playback_stopped() { return m_playback.confirm_stopped(); }
    nuv_error playback_error();
    nuv_error playback_finished(bool no_next_track);
    nuv_error resume_delivery(uint64_t stream_id) { return m_streams.open_delivery(stream_id); }

  private:
    using Role = StreamQueue::Role;
    using Stream = StreamQueue::Stream;

    // Steps of `advance`, in order; true when a delegate was called.
    bool stop_unwanted_playback();
    bool dispose_unwanted_streams();
    bool start_current();
    bool initiate_playback();
    bool pause_or_resume();
    bool begin_seek();
    bool end_seek();
    bool withdraw_next();
    bool start_next();
    // Parts of them.
    bool keep_place();
    void refresh_place();
    bool plays_undisturbed() const;
    bool is_heard() const;
    bool deliver_one(Role role);

    std::optional<Course::Heard> heard_on_the_way_back() const;

    const PlayerDelegates m_delegates;
    Control& m_control;
    const std::shared_ptr<const Logger> m_logger;

    uint64_t m_seek_count = 0;
    PlaybackState m_playback;
    Course m_course;
    StreamQueue m_streams;
    Delivery m_delivery;
    Pace::Time m_paused_at;
    // Where sound begins after a pause or a seek, until the renderer takes something.
    std::optional<uint64_t> m_resumed_ms;
};

}  // namespace local_core
