// Plays a session on the device's renderer: streams, their delivery, and what the renderer is told.
//
// The player holds goals (which session, which track, playing, paused or stopped, a position to go
// to) and what the renderer has confirmed. Commands change the goals; the passes of the loop take
// the steps that lead from one to the other, as far as the renderer's present state allows.
//
// Streams: the current one is what is heard, the next one is announced while the current one still
// plays, a retired one has been heard to its end and waits for its disposal. A stream's delivery is
// closed until the renderer opens it, and again after every short count.
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

#include "local/control.h"
#include "local/decode_thread.h"
#include "local/logger.h"
#include "local/session.h"
#include "sdk/nuvio_connect.h"

namespace local_core {

class Player {
  public:
    struct Delegates {
        nuv_connect* core;  // handed to every callback
        nuv_audio_stream_delegate audio;
        nuv_media_delegate media;
        nuv_audio_quality highest_quality;  // that the renderer takes
    };

    // `on_news` comes from the decoding thread: the next pass has something to do.
    Player(const Delegates& delegates, Control& control, const Logger& logger,
           std::function<void()> on_news);
    // Calls no delegate.
    ~Player();
    Player(const Player&) = delete;
    Player& operator=(const Player&) = delete;

    void apply(Command command);
    void set_modes(nuv_loop_mode loop_mode, bool shuffle);

    // Takes the first step that is due; true when there was one.
    bool advance();
    // Offers each stream's data once; true when there may be more.
    bool deliver();

    PlayerView view() const;
    // True, once, after the renderer has begun to play anew: everything about it is worth a report.
    bool take_fresh_start() { return std::exchange(m_fresh_start, false); }

    // From the renderer.
    nuv_error playback_initiated();
    nuv_error playback_paused();
    nuv_error playback_resumed();
    nuv_error playback_stopped();
    nuv_error playback_error();
    nuv_error playback_finished(bool no_next_track);
    nuv_error resume_delivery(uint64_t stream_id);

  private:
    enum class Renderer { stopped, initiating, playing, paused };

    struct Stream {
        TrackPipePtr pipe;
        size_t track;              // index in the session
        uint64_t session_count;    // the session it belongs to
        uint64_t id = 0;           // 0: not announced yet
        bool open = false;         // delivery
        bool finished = false;     // reported as delivered wholly
        bool has_flowed = false;   // some of it has been taken, or it has been positioned
        PcmBlock block{};          // being offered
        size_t offered_bytes = 0;  // of the block, taken by the renderer
        uint64_t taken_bytes = 0;  // since the start or the last seek
    };
    using StreamPtr = std::unique_ptr<Stream>;

    // Steps of `advance`, in order; true when a delegate was called.
    bool stop_stale_playback();
    bool dispose_stale_streams();
    bool start_current();
    bool initiate();
    bool pause_or_resume();
    bool keep_place();
    bool begin_seek();
    bool end_seek();
    bool withdraw_next();
    bool start_next();

    void skip_to(size_t track);
    void go_back();
    void end_session();
    void after_last_sample();
    void skip_unplayable(const Stream& stream);
    bool skip_refused();

    bool renderer_active() const;
    bool is_to_stop() const { return m_goal == NUV_PLAYBACK_STATE_STOPPED || m_replaces_streams; }
    bool plays_undisturbed() const;

    StreamPtr open_stream(size_t track);
    void announce(Stream& stream);
    void withdraw(Stream& stream);
    void release(StreamPtr stream);
    void give_back_block(Stream& stream);
    bool offer(Stream& stream);
    uint64_t heard_position_ms() const;
    void finish(Stream& stream);

    const Delegates m_delegates;
    Control& m_control;
    const Logger& m_logger;

    std::unique_ptr<Session> m_session;
    uint64_t m_session_count = 0;
    nuv_loop_mode m_loop_mode = NUV_LOOP_MODE_OFF;
    bool m_shuffle = false;

    // Goals.
    nuv_playback_state m_goal = NUV_PLAYBACK_STATE_STOPPED;
    bool m_replaces_streams = false;  // the streams are not what should play any more
    std::optional<uint64_t> m_seek_goal_ms;
    bool m_backwards = false;  // the last skip; so that unplayable tracks are passed over that way

    // The renderer.
    Renderer m_renderer = Renderer::stopped;
    nuv_playback_state m_initial = NUV_PLAYBACK_STATE_STOPPED;
    bool m_awaits_answer = false;  // to pause or resume; the answer is still to come
    bool m_seeking = false;        // between seek in progress and seeked
    uint64_t m_seek_target_ms = 0;
    bool m_place_kept = false;  // the stream goes on at what is heard: it can be paused
    // What was heard, and when, as the next stream began to flow behind the current one.
    uint64_t m_hand_over_position_ms = 0;
    std::chrono::steady_clock::time_point m_hand_over_time;
    nuv_playback_state m_state = NUV_PLAYBACK_STATE_STOPPED;  // what the world is told
    bool m_active = false;
    bool m_fresh_start = false;
    int m_refused = 0;           // tracks in a row of which the renderer took nothing
    size_t m_first_refused = 0;  // of these

    uint64_t m_last_stream_id = 0;
    DecodeThread m_decoder;
    StreamPtr m_current;
    StreamPtr m_next;
    StreamPtr m_retired;
};

}  // namespace local_core
