#include "local/playback/course.h"

#include <algorithm>
#include <iterator>
#include <utility>

#include "local/texts/display_text.h"

namespace local_core {

namespace {

// Going back later in a track than this leads to its own beginning.
constexpr uint64_t kRestartAfterMs = 3000;

}  // namespace

// ---- Commands ---------------------------------------------------------------------------------

void Course::apply(Command command) {
    static constexpr struct {
        Verb verb;
        void (Course::*carry_out)(const Command& command);
    } kInSession[] = {
        {Verb::pause, &Course::pause},      {Verb::resume, &Course::resume},
        {Verb::stop, &Course::stop},        {Verb::next, &Course::go_to_next},
        {Verb::previous, &Course::go_back}, {Verb::seek, &Course::seek},
    };
    if (command.verb == Verb::connect) {
        join_session(command);
    } else if (command.verb == Verb::deactivate) {
        leave_session();
    } else if (m_session) {
        const auto* const row = std::ranges::find_if(
            kInSession, [&](const auto& known) { return known.verb == command.verb; });
        if (row != std::end(kInSession)) {
            (this->*row->carry_out)(command);
        }
    }
}

void Course::join_session(Command& command) {
    m_session = std::move(command.session);
    m_session->set_modes(m_loop_mode, m_shuffle);
    ++m_session_count;
    m_goals.set_goal(command.become_active ? NUV_PLAYBACK_STATE_PLAYING
                                           : NUV_PLAYBACK_STATE_STOPPED);
    m_goals.replace_streams();
    m_goals.forget_seek_goal();
    m_is_active = command.become_active;
    m_goes_backwards = false;
    m_misses.begin_session();
}

void Course::leave_session() {
    m_session.reset();
    m_goals.set_goal(NUV_PLAYBACK_STATE_STOPPED);
    m_goals.forget_seek_goal();
    m_is_active = false;
}

void Course::pause(const Command&) {
    if (m_goals.goal() == NUV_PLAYBACK_STATE_PLAYING) {
        m_goals.set_goal(NUV_PLAYBACK_STATE_PAUSED);
    }
}

void Course::resume(const Command&) {
    m_misses.try_again();
    m_goals.set_goal(NUV_PLAYBACK_STATE_PLAYING);
    m_goals.set_place_kept(false);
    m_is_active = true;
}

void Course::stop(const Command&) {
    m_goals.set_goal(NUV_PLAYBACK_STATE_STOPPED);
    m_goals.replace_streams();
    m_goals.forget_seek_goal();
}

void Course::go_to_next(const Command&) {
    if (const auto next = m_session->next()) {
        m_misses.try_again();
        m_goes_backwards = false;
        skip_to(*next);
    }
}

void Course::go_back(const Command&) {
    const std::optional<Heard> heard = m_heard();
    const uint64_t position_ms = m_goals.seek_goal_ms().value_or(heard ? heard->position_ms : 0);
    const auto previous = m_session->previous();
    if (position_ms <= kRestartAfterMs && previous) {
        m_goes_backwards = true;
        skip_to(*previous);
    } else if (heard && heard->is_seekable) {
        m_goals.set_seek_goal_ms(0);
    } else {
        skip_to(m_session->current());
    }
}

void Course::seek(const Command& command) {
    if (m_goals.goal() != NUV_PLAYBACK_STATE_STOPPED) {
        m_goals.set_seek_goal_ms(command.position_ms);
    }
}

void Course::set_modes(nuv_loop_mode loop_mode, bool shuffle) {
    m_loop_mode = loop_mode;
    m_shuffle = shuffle;
    if (m_session) {
        m_session->set_modes(loop_mode, shuffle);
    }
}

nuv_error Course::edit(QueueEdit& edit) {
    if (!m_session) {
        return NUV_ERROR_NOT_CONNECTED;
    }
    const size_t before = m_session->current();
    const bool jumps = edit.verb == Verb::queue_jump;
    const nuv_error error = m_session->edit(edit);
    if (error == NUV_ERROR_OK && (jumps || m_session->current() != before)) {
        m_misses.try_again();
        m_goes_backwards = false;
        skip_to(m_session->current());
    }
    return error;
}

// ---- What became of the tracks ----------------------------------------------------------------

void Course::arrive_at(const TrackPlace& place) {
    if (is_in_session(place)) {
        m_session->move_to(place.track);
    }
}

void Course::go_on_after_last_sample() {
    if (m_goals.is_to_stop()) {
        return;
    }
    m_goes_backwards = false;
    // The next track was not announced in time to be queued behind this one.
    const auto follower = m_session->follower();
    if (follower && !m_misses.gives_session_up()) {
        skip_to(*follower);
    } else {
        end_session();
    }
}

// Or repeating it would never pause for breath.
void Course::pass_over_silent(const Stream& stream) {
    m_session->mark_unplayable(stream.place().track);
}

void Course::pass_over(const Stream& stream) {
    m_misses.consider(stream, m_session->id());
    const size_t track = stream.place().track;
    m_logger->write(LogLevel::warning, kContentFetcher, "Skipping %s: %s",
                    display_location(m_session->track(track).location).c_str(),
                    display_text(stream.open_error()).c_str());
    m_session->mark_unplayable(track);
    m_misses.note({"track_failed", track, stream.open_error()});
}

void Course::leave_current() {
    const auto onward =
        m_goes_backwards && m_session->previous() ? m_session->previous() : m_session->next();
    if (onward && !m_misses.gives_session_up()) {
        m_session->move_to(*onward);
    } else {
        end_session();
    }
}

bool Course::may_open_behind(const Stream& stream) {
    m_misses.consider(stream, m_session->id());
    return !m_misses.gives_session_up();
}

void Course::playback_failed(std::optional<uint64_t> resumed_ms, bool takes_nothing) {
    m_goals.forget_seek_goal();
    m_misses.note({"playback_failed", std::nullopt, "the sound card can't play"});
    if (m_session && !m_goals.is_to_stop() &&
        ((resumed_ms && begin_anew(*resumed_ms)) || (takes_nothing && pass_over_refused()))) {
        return;
    }
    m_goals.set_goal(NUV_PLAYBACK_STATE_STOPPED);
}

// ---- Parts of them ----------------------------------------------------------------------------

void Course::skip_to(size_t track) {
    m_session->move_to(track);
    m_goals.replace_streams();
    m_goals.forget_seek_goal();
}

void Course::end_session() {
    m_logger->write(LogLevel::info, kCloudClient, "Session %s: nothing is left to play",
                    m_session->id().c_str());
    m_session->rewind();
    m_goals.set_goal(NUV_PLAYBACK_STATE_STOPPED);
    m_goals.forget_seek_goal();
    m_is_active = false;
    m_misses.end_session();
}

// An output that went during a pause or a seek (a sound server that was restarted) is opened anew,
// and the track goes on at its place; not twice without sound between.
bool Course::begin_anew(uint64_t place_ms) {
    if (!m_misses.may_begin_anew()) {
        return false;
    }
    skip_to(m_session->current());
    m_goals.set_seek_goal_ms(place_ms);
    return true;
}

// When nothing of the track was taken it may be its format, and the next one may be played. False
// when the renderer can play none: the session is then where it was.
bool Course::pass_over_refused() {
    const auto next = m_session->next();
    const bool goes_on = m_misses.refused(m_session->current(), next);
    skip_to(goes_on && next ? *next : m_misses.first_refused());
    return goes_on;
}

}  // namespace local_core
