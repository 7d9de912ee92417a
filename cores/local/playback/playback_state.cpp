#include "local/playback/playback_state.h"

namespace local_core {

void PlaybackState::unwanted_streams_are_gone() {
    m_replaces_streams = false;
    if (m_goal == NUV_PLAYBACK_STATE_STOPPED) {
        m_confirmed = NUV_PLAYBACK_STATE_STOPPED;
    }
}

nuv_playback_state PlaybackState::begin_initiation() {
    m_renderer = Renderer::initiating;
    m_initial = m_goal;
    return m_initial;
}

bool PlaybackState::is_to_pause() const {
    return !m_is_seeking && !m_awaits_answer && m_goal == NUV_PLAYBACK_STATE_PAUSED &&
           m_renderer == Renderer::playing;
}

bool PlaybackState::is_to_resume() const {
    return !m_is_seeking && !m_awaits_answer && m_goal == NUV_PLAYBACK_STATE_PLAYING &&
           m_renderer == Renderer::paused;
}

uint64_t PlaybackState::begin_seek() {
    m_is_seeking = true;
    m_seek_target_ms = std::exchange(m_seek_goal_ms, std::nullopt).value_or(0);
    return m_seek_target_ms;
}

nuv_error PlaybackState::confirm_initiated() {
    if (m_renderer == Renderer::initiating) {
        m_renderer = m_initial == NUV_PLAYBACK_STATE_PAUSED ? Renderer::paused : Renderer::playing;
        m_confirmed = m_initial;
        m_is_fresh_start = true;
        return NUV_ERROR_OK;
    }
    // A change of track inside the playback is confirmed the same way.
    return is_active() ? NUV_ERROR_OK : NUV_ERROR_INVALID_STATE;
}

nuv_error PlaybackState::confirm_paused() {
    if (m_renderer != Renderer::playing) {
        return NUV_ERROR_INVALID_STATE;
    }
    m_renderer = Renderer::paused;
    m_confirmed = NUV_PLAYBACK_STATE_PAUSED;
    m_is_place_kept = false;
    if (!std::exchange(m_awaits_answer, false)) {
        m_goal = NUV_PLAYBACK_STATE_PAUSED;
    }
    return NUV_ERROR_OK;
}

nuv_error PlaybackState::confirm_resumed() {
    if (m_renderer != Renderer::paused) {
        return NUV_ERROR_INVALID_STATE;
    }
    m_renderer = Renderer::playing;
    m_confirmed = NUV_PLAYBACK_STATE_PLAYING;
    if (!std::exchange(m_awaits_answer, false)) {
        m_goal = NUV_PLAYBACK_STATE_PLAYING;
    }
    return NUV_ERROR_OK;
}

nuv_error PlaybackState::confirm_stopped() {
    if (m_renderer == Renderer::stopped) {
        return NUV_ERROR_INVALID_STATE;
    }
    if (!is_to_stop()) {
        m_goal = NUV_PLAYBACK_STATE_STOPPED;  // the renderer's own decision
    }
    m_renderer = Renderer::stopped;
    m_awaits_answer = false;
    m_is_seeking = false;
    m_is_place_kept = false;
    return NUV_ERROR_OK;
}

void PlaybackState::confirm_end_of_track(bool no_next_track) {
    m_seek_goal_ms.reset();  // it was meant for the track that is over
    m_is_place_kept = false;
    if (no_next_track) {
        m_renderer = Renderer::stopped;
        m_awaits_answer = false;
    }
}

}  // namespace local_core
