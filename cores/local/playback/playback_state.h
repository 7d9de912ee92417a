// What playback is to be (the goals) and what the renderer has confirmed of it. Which streams serve
// that purpose is the stream queue's matter, the way from one to the other the player's.
//
// Loop thread only; calls nothing.
#pragma once

#include <cstdint>
#include <optional>
#include <utility>

#include "sdk/nuvio_connect.h"

namespace local_core {

class PlaybackState {
  public:
    // ---- Goals --------------------------------------------------------------------------------

    nuv_playback_state goal() const { return m_goal; }
    void set_goal(nuv_playback_state goal) { m_goal = goal; }
    // The streams are not what should play any more: playback stops until they are gone.
    void replace_streams() { m_replaces_streams = true; }
    bool replaces_streams() const { return m_replaces_streams; }
    bool is_to_stop() const { return m_goal == NUV_PLAYBACK_STATE_STOPPED || m_replaces_streams; }
    // Playback has stopped and what is not to play is gone.
    void unwanted_streams_are_gone();

    std::optional<uint64_t> seek_goal_ms() const { return m_seek_goal_ms; }
    void set_seek_goal_ms(uint64_t position_ms) { m_seek_goal_ms = position_ms; }
    void forget_seek_goal() { m_seek_goal_ms.reset(); }

    // ---- Requests to the renderer -------------------------------------------------------------

    // The state to initiate playback in.
    nuv_playback_state begin_initiation();
    // The renderer is to pause (or to resume), which it is not doing yet.
    bool is_to_pause() const;
    bool is_to_resume() const;
    void await_answer() { m_awaits_answer = true; }
    bool awaits_answer() const { return m_awaits_answer; }

    // Between seek in progress and seeked. Returns the place to go to, which is no goal any more.
    uint64_t begin_seek();
    void end_seek() { m_is_seeking = false; }
    bool is_seeking() const { return m_is_seeking; }
    uint64_t seek_target_ms() const { return m_seek_target_ms; }

    // The stream goes on at what is heard, so that it can be paused without a loss.
    bool is_place_kept() const { return m_is_place_kept; }
    void set_place_kept(bool is_kept) { m_is_place_kept = is_kept; }

    // ---- Confirmed by the renderer ------------------------------------------------------------

    bool is_stopped() const { return m_renderer == Renderer::stopped; }
    bool is_active() const {
        return m_renderer == Renderer::playing || m_renderer == Renderer::paused;
    }
    // NUV_ERROR_INVALID_STATE where the renderer can't have come to it.
    nuv_error confirm_initiated();
    nuv_error confirm_paused();
    nuv_error confirm_resumed();
    nuv_error confirm_stopped();
    // The track's last sample was heard. `no_next_track`: the renderer stops by itself.
    void confirm_end_of_track(bool no_next_track);

    // What the world is told.
    nuv_playback_state confirmed() const { return m_confirmed; }
    // True, once, after the renderer has begun to play anew.
    bool take_fresh_start() { return std::exchange(m_is_fresh_start, false); }

  private:
    enum class Renderer { stopped, initiating, playing, paused };

    nuv_playback_state m_goal = NUV_PLAYBACK_STATE_STOPPED;
    bool m_replaces_streams = false;
    std::optional<uint64_t> m_seek_goal_ms;

    Renderer m_renderer = Renderer::stopped;
    nuv_playback_state m_initial = NUV_PLAYBACK_STATE_STOPPED;
    bool m_awaits_answer = false;  // to pause or resume; it is still to come
    bool m_is_seeking = false;
    uint64_t m_seek_target_ms = 0;
    bool m_is_place_kept = false;
    nuv_playback_state m_confirmed = NUV_PLAYBACK_STATE_STOPPED;
    bool m_is_fresh_start = false;
};

}  // namespace local_core
