#include "local/playback/player.h"

#include <algorithm>
#include <iterator>
#include <utility>

#include "local/texts/display_text.h"

namespace local_core {

namespace {

// Going back later in a track than this leads to its own beginning.
constexpr uint64_t kRestartAfterMs = 3000;

}  // namespace

Player::Player(const PlayerDelegates& delegates, Control& control,
               const std::shared_ptr<const Logger>& logger, std::function<void()> on_change)
    : m_delegates(delegates),
      m_logger(logger),
      m_streams(delegates, control, logger, std::move(on_change)),
      m_delivery(m_streams, [this] { return is_heard(); }),
      m_misses(logger) {}

Player::~Player() = default;

// ---- Commands ---------------------------------------------------------------------------------

void Player::apply(Command command) {
    static constexpr struct {
        Verb verb;
        void (Player::*carry_out)(const Command& command);
    } kInSession[] = {
        {Verb::pause, &Player::pause},      {Verb::resume, &Player::resume},
        {Verb::stop, &Player::stop},        {Verb::next, &Player::go_to_next},
        {Verb::previous, &Player::go_back}, {Verb::seek, &Player::seek},
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

void Player::join_session(Command& command) {
    m_session = std::move(command.session);
    m_session->set_modes(m_loop_mode, m_shuffle);
    ++m_session_count;
    m_playback.set_goal(command.become_active ? NUV_PLAYBACK_STATE_PLAYING
                                              : NUV_PLAYBACK_STATE_STOPPED);
    m_playback.replace_streams();
    m_playback.forget_seek_goal();
    m_is_active = command.become_active;
    m_goes_backwards = false;
    m_misses.begin_session();
}

void Player::leave_session() {
    m_session.reset();
    m_playback.set_goal(NUV_PLAYBACK_STATE_STOPPED);
    m_playback.forget_seek_goal();
    m_is_active = false;
}

void Player::pause(const Command&) {
    if (m_playback.goal() == NUV_PLAYBACK_STATE_PLAYING) {
        m_playback.set_goal(NUV_PLAYBACK_STATE_PAUSED);
    }
}

void Player::resume(const Command&) {
    m_misses.try_again();
    m_playback.set_goal(NUV_PLAYBACK_STATE_PLAYING);
    m_playback.set_place_kept(false);
    m_is_active = true;
}

void Player::stop(const Command&) {
    m_playback.set_goal(NUV_PLAYBACK_STATE_STOPPED);
    m_playback.replace_streams();
    m_playback.forget_seek_goal();
}

void Player::go_to_next(const Command&) {
    if (const auto next = m_session->next()) {
        m_misses.try_again();
        m_goes_backwards = false;
        skip_to(*next);
    }
}

void Player::go_back(const Command&) {
    const bool is_heard = m_playback.is_active() && !m_playback.replaces_streams();
    uint64_t position_ms = m_playback.seek_goal_ms().value_or(0);
    if (is_heard && !m_playback.seek_goal_ms()) {
        position_ms = m_streams.heard_position_ms();
    }
    const auto previous = m_session->previous();
    if (position_ms <= kRestartAfterMs && previous) {
        m_goes_backwards = true;
        skip_to(*previous);
    } else if (is_heard && m_streams.current()->info().seekable) {
        m_playback.set_seek_goal_ms(0);
    } else {
        skip_to(m_session->current());
    }
}

void Player::seek(const Command& command) {
    if (m_playback.goal() != NUV_PLAYBACK_STATE_STOPPED) {
        m_playback.set_seek_goal_ms(command.position_ms);
    }
}

void Player::set_modes(nuv_loop_mode loop_mode, bool shuffle) {
    m_loop_mode = loop_mode;
    m_shuffle = shuffle;
    if (m_session) {
        m_session->set_modes(loop_mode, shuffle);
    }
}

nuv_error Player::edit(QueueEdit& edit) {
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

// ---- Which track comes ------------------------------------------------------------------------

void Player::skip_to(size_t track) {
    m_session->move_to(track);
    m_playback.replace_streams();
    m_playback.forget_seek_goal();
}

void Player::end_session() {
    m_logger->write(LogLevel::info, kCloudClient, "Session %s: nothing is left to play",
                    m_session->id().c_str());
    m_session->rewind();
    m_playback.set_goal(NUV_PLAYBACK_STATE_STOPPED);
    m_playback.forget_seek_goal();
    m_is_active = false;
    m_misses.end_session();
}

void Player::go_on_after_last_sample() {
    if (m_playback.is_to_stop()) {
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

void Player::pass_over(const Stream& stream) {
    const size_t track = stream.place().track;
    m_logger->write(LogLevel::warning, kContentFetcher, "Skipping %s: %s",
                    display_text(m_session->track(track).location).c_str(),
                    display_text(stream.open_error()).c_str());
    m_session->mark_unplayable(track);
    m_misses.note({"track_failed", track, stream.open_error()});
}

// An output that went during a pause or a seek (a sound server that was restarted) is opened anew,
// and the track goes on at its place; not twice without sound between.
bool Player::begin_anew() {
    const auto place_ms = std::exchange(m_resumed_ms, std::nullopt);
    if (!place_ms || m_playback.is_to_stop() || !m_session || !m_misses.may_begin_anew()) {
        return false;
    }
    skip_to(m_session->current());
    m_playback.set_seek_goal_ms(*place_ms);
    return true;
}

// When nothing of the track was taken it may be its format, and the next one may be played. False
// when the renderer can play none: the session is then where it was.
bool Player::pass_over_refused() {
    const Stream* const current = m_streams.current();
    if (m_playback.is_to_stop() || !m_session || current == nullptr || current->has_flowed()) {
        return false;
    }
    const auto next = m_session->next();
    const bool goes_on = m_misses.refused(m_session->current(), next);
    skip_to(goes_on && next ? *next : m_misses.first_refused());
    return goes_on;
}

// ---- From the renderer ------------------------------------------------------------------------

nuv_error Player::playback_initiated() {
    if (m_playback.is_active()) {
        m_delivery.go_on();
    } else {
        m_delivery.begin();
    }
    return m_playback.confirm_initiated();
}

nuv_error Player::playback_paused() {
    m_paused_at = Pace::Clock::now();
    return m_playback.confirm_paused();
}

nuv_error Player::playback_resumed() {
    if (m_streams.current() != nullptr) {
        m_resumed_ms = m_streams.delivered_position_ms();
    }
    m_delivery.begin();
    return m_playback.confirm_resumed();
}

nuv_error Player::playback_error() {
    if (m_playback.is_stopped()) {
        return NUV_ERROR_INVALID_STATE;
    }
    m_logger->write(LogLevel::error, kAudioStreamManager, "The renderer reports a playback error");
    m_playback.forget_seek_goal();
    m_misses.note({"playback_failed", std::nullopt, "the sound card can't play"});
    if (!begin_anew() && !pass_over_refused()) {
        m_playback.set_goal(NUV_PLAYBACK_STATE_STOPPED);
    }
    return m_playback.confirm_stopped();
}

nuv_error Player::playback_finished(bool no_next_track) {
    const Stream* const current = m_streams.current();
    if (!m_playback.is_active() || m_streams.has_retired() || current == nullptr ||
        !current->is_finished()) {
        return NUV_ERROR_INVALID_STATE;
    }
    m_playback.confirm_end_of_track(no_next_track);
    if (no_next_track) {
        go_on_after_last_sample();
        return NUV_ERROR_OK;
    }
    if (!m_streams.advance()) {
        return NUV_ERROR_INVALID_STATE;
    }
    const TrackPlace& place = m_streams.current()->place();
    if (m_session && place == place_of(place.track)) {
        m_session->move_to(place.track);
    }
    return NUV_ERROR_OK;
}

PlayerView Player::view() const {
    PlayerView view;
    view.state = m_playback.confirmed();
    view.wanted = m_playback.goal();
    view.active = m_is_active;
    view.has_next = m_session && m_session->next();
    view.has_previous = m_session && m_session->previous();
    if (m_session) {
        view.track = m_session->current();
        view.list_revision = m_session->revision();
    }
    if (heard()) {
        view.stream_id = m_streams.current()->id();
    }
    view.text_count = m_text_count;
    view.seek_count = m_seek_count;
    return view;
}

std::optional<HeardTrack> Player::heard() const {
    const Stream* const current = m_streams.current();
    if (!m_playback.is_active() || current == nullptr || !current->is_announced() || !m_session ||
        current->place() != place_of(current->place().track)) {
        return std::nullopt;
    }
    return HeardTrack{current->place().track, &current->info(), &current->texts()};
}

uint64_t Player::position_ms() const {
    return heard() ? m_playback.seek_goal_ms().value_or(m_streams.heard_position_ms()) : 0;
}

}  // namespace local_core
