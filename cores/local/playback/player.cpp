#include "local/playback/player.h"

#include <algorithm>
#include <cinttypes>
#include <iterator>
#include <utility>

namespace local_core {

namespace {

// The renderer's position is a difference of rounded times, one of which a sound server estimates:
// so much it may lie ahead of the sound.
constexpr uint64_t kPositionErrorMs = 7;

constexpr std::chrono::milliseconds kShortPause{100};

}  // namespace

Player::Player(const PlayerDelegates& delegates, Control& control,
               const std::shared_ptr<const Logger>& logger, std::function<void()> on_change)
    : m_delegates(delegates),
      m_control(control),
      m_logger(logger),
      m_course(m_playback, logger, [this] { return heard_on_the_way_back(); }),
      m_streams(delegates, control, logger, std::move(on_change)),
      m_delivery(m_streams, [this] { return is_heard(); }) {}

Player::~Player() = default;

// ---- Steps ------------------------------------------------------------------------------------

// First what must be gone before anything new can come: playback, then streams. Only then the
// current stream, which the playback that is initiated needs. A pause comes before a seek, which it
// makes itself to keep its place, and both before the next stream, which a seek may take back.
bool Player::advance() {
    static constexpr bool (Player::*kSteps[])() = {
        &Player::stop_unwanted_playback,
        &Player::dispose_unwanted_streams,
        &Player::start_current,
        &Player::initiate_playback,
        &Player::pause_or_resume,
        &Player::begin_seek,
        &Player::end_seek,
        &Player::withdraw_next,
        &Player::start_next,
    };
    return std::any_of(std::begin(kSteps), std::end(kSteps),
                       [this](const auto step) { return (this->*step)(); });
}

// The renderer plays the current stream, and nothing is about to change that.
bool Player::plays_undisturbed() const {
    return m_playback.is_active() && !m_playback.is_to_stop() && !m_playback.is_seeking() &&
           !m_streams.has_retired() && m_streams.current() != nullptr &&
           m_course.session() != nullptr;
}

// ---- Away with what is not wanted -------------------------------------------------------------

bool Player::stop_unwanted_playback() {
    if (m_playback.is_stopped() || !m_playback.is_to_stop()) {
        return false;
    }
    m_delegates.media.stop_playback(m_delegates.core, m_delegates.media.context);
    if (!m_playback.is_stopped()) {
        m_logger->write(LogLevel::warning, kAudioStreamManager,
                        "The renderer did not confirm the stop");
        m_playback.confirm_stopped();
    }
    return true;
}

bool Player::dispose_unwanted_streams() {
    bool progress = m_streams.dispose_retired();
    if (!m_playback.is_stopped() || !m_playback.is_to_stop()) {
        return progress;
    }
    // A skip to the track that was coming anyway keeps what has been decoded of it.
    const Stream* const next = m_streams.next();
    const bool skips_to_next = m_playback.goal() != NUV_PLAYBACK_STATE_STOPPED && next != nullptr &&
                               m_course.is_current(next->place()) && !next->has_flowed();
    if (skips_to_next) {
        progress |= m_streams.dispose_current_keeping_next();
    } else {
        progress |= m_streams.dispose(Role::next);
        progress |= m_streams.dispose(Role::current);
    }
    m_playback.unwanted_streams_are_gone();
    return progress;
}

// ---- On with what is --------------------------------------------------------------------------

bool Player::start_current() {
    const Session* const session = m_course.session();
    if (m_playback.is_to_stop() || session == nullptr || !m_playback.is_stopped()) {
        return false;
    }
    if (m_streams.current() == nullptr) {
        const size_t track = session->current();
        m_streams.open(Role::current, session->track(track), m_course.place_of(track));
    }
    if (m_streams.current()->is_announced()) {
        return false;
    }
    const StreamQueue::Start start = m_streams.start(Role::current);
    if (start != StreamQueue::Start::failed) {
        return start == StreamQueue::Start::announced;
    }
    m_course.pass_over(*m_streams.current());
    m_streams.dispose(Role::current);
    m_course.leave_current();
    return true;
}

bool Player::initiate_playback() {
    const Stream* const current = m_streams.current();
    if (m_playback.is_to_stop() || !m_playback.is_stopped() || current == nullptr ||
        !current->is_announced()) {
        return false;
    }
    m_control.output_is_taken();
    m_delegates.media.initiate_playback(m_delegates.core, m_playback.begin_initiation(),
                                        m_delegates.media.context);
    return true;
}

bool Player::pause_or_resume() {
    const nuv_media_delegate& media = m_delegates.media;
    if (m_playback.is_to_pause()) {
        if (keep_place()) {
            return true;
        }
        m_playback.await_answer();
        media.pause_playback(m_delegates.core, media.context);
        return true;
    }
    if (m_playback.is_to_resume()) {
        m_playback.await_answer();
        m_control.output_is_taken();
        media.resume_playback(m_delegates.core, media.context);
        refresh_place();
        return true;
    }
    return false;
}

// PulseAudio takes the time since an output was emptied for time played, and answers with places
// that lie ahead by that: a seek to the same place empties it anew.
void Player::refresh_place() {
    if (is_heard() && !m_playback.seek_goal_ms() && m_streams.current()->info().seekable &&
        Pace::Clock::now() - m_paused_at > kShortPause) {
        m_playback.set_seek_goal_ms(m_streams.delivered_position_ms());
    }
}

// A pause drops what the output still holds. The stream is positioned at what is heard before it:
// while the renderer plays, for only then does it know that place and report it.
bool Player::keep_place() {
    if (m_playback.is_place_kept() || !plays_undisturbed() ||
        !m_streams.current()->info().seekable) {
        return false;
    }
    if (!m_playback.seek_goal_ms()) {
        const uint64_t position_ms = m_delivery.heard_ms();
        m_playback.set_seek_goal_ms(position_ms - std::min(position_ms, kPositionErrorMs));
    }
    m_playback.set_place_kept(true);
    return begin_seek();
}

bool Player::begin_seek() {
    if (!m_playback.seek_goal_ms() || m_playback.awaits_answer() || !plays_undisturbed()) {
        return false;
    }
    const TrackInfo& info = m_streams.current()->info();
    if (!info.seekable) {
        m_playback.forget_seek_goal();
        m_logger->write(LogLevel::warning, kAudioStreamManager,
                        "[Stream %" PRIu64 "]: can't be positioned", m_streams.current()->id());
        return false;
    }
    const uint64_t target_ms = m_playback.begin_seek();
    m_delegates.media.seek_in_progress(m_delegates.core, m_delegates.media.context);
    if (!m_playback.is_active()) {
        return true;  // an error ended the playback
    }
    m_streams.seek_current(info.frame_at(target_ms));
    // What the renderer has taken of the next track was dropped with the rest of its buffer.
    if (m_streams.next() != nullptr && m_streams.next()->has_flowed()) {
        m_streams.dispose(Role::next);
    }
    return true;
}

bool Player::end_seek() {
    if (!m_playback.is_seeking()) {
        return false;
    }
    const auto frame = m_streams.seek_result();
    if (!frame) {
        return false;
    }
    m_playback.end_seek();
    ++m_seek_count;
    m_resumed_ms = m_playback.seek_target_ms();
    m_delivery.begin();
    // A frame lies between two milliseconds: where it is the one that was asked for, so is its
    // position, and the renderer counts on from there exactly.
    const TrackInfo& info = m_streams.current()->info();
    const uint64_t target_ms = m_playback.seek_target_ms();
    const bool is_exact = *frame == info.frame_at(target_ms) && target_ms <= info.duration_ms();
    m_streams.report_seeked(is_exact ? target_ms : info.position_ms(*frame));
    return true;
}

// ---- The next stream --------------------------------------------------------------------------

// The modes may have changed what follows; a stream that already flows stays.
bool Player::withdraw_next() {
    const Stream* const next = m_streams.next();
    if (!plays_undisturbed() || next == nullptr || next->has_flowed() ||
        m_course.session()->follower() == next->place().track) {
        return false;
    }
    const bool was_announced = next->is_announced();
    m_streams.dispose(Role::next);
    return was_announced;
}

bool Player::start_next() {
    if (!plays_undisturbed()) {
        return false;
    }
    const Session& session = *m_course.session();
    const auto follower = session.follower();
    if (!follower) {
        return false;
    }
    if (m_streams.next() == nullptr) {
        if (!m_streams.current()->is_decoded_wholly() ||
            !m_course.may_open_behind(*m_streams.current())) {
            return false;
        }
        m_streams.open(Role::next, session.track(*follower), m_course.place_of(*follower));
    }
    if (m_streams.next()->is_announced()) {
        return false;
    }
    const StreamQueue::Start start = m_streams.start(Role::next);
    if (start != StreamQueue::Start::failed) {
        return start == StreamQueue::Start::announced;
    }
    m_course.pass_over(*m_streams.next());
    m_streams.dispose(Role::next);
    return true;
}

// ---- Delivery ---------------------------------------------------------------------------------

bool Player::is_heard() const {
    return plays_undisturbed() && m_playback.confirmed() == NUV_PLAYBACK_STATE_PLAYING;
}

bool Player::deliver() {
    if (!m_delivery.follow()) {
        return false;
    }
    bool has_more = m_streams.current() != nullptr && deliver_one(Role::current);
    if (m_streams.next() != nullptr) {
        has_more |= deliver_one(Role::next);
    }
    return has_more;
}

bool Player::deliver_one(Role role) {
    if (!plays_undisturbed()) {
        return false;
    }
    const StreamQueue::Offered offered = m_delivery.offer(role);
    if (offered.taken_bytes > 0) {
        m_course.sound_flows();
        m_resumed_ms.reset();
    }
    if (offered.is_at_end) {
        const Stream& stream = role == Role::current ? *m_streams.current() : *m_streams.next();
        if (!stream.has_flowed()) {
            m_course.pass_over_silent(stream);
        }
        m_delivery.finish(role);
    }
    return offered.has_more;
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
    const Stream* const current = m_streams.current();
    m_course.playback_failed(std::exchange(m_resumed_ms, std::nullopt),
                             current != nullptr && !current->has_flowed());
    return m_playback.confirm_stopped();
}

nuv_error Player::playback_finished(bool no_next_track) {
    const Stream* const current = m_streams.current();
    if (!m_playback.is_active() || m_streams.has_retired() || current == nullptr ||
        !current->is_finished()) {
        return NUV_ERROR_INVALID_STATE;
    }
    m_streams.note_played_out();
    m_playback.confirm_end_of_track(no_next_track);
    if (no_next_track) {
        m_course.go_on_after_last_sample();
        return NUV_ERROR_OK;
    }
    if (!m_streams.advance()) {
        return NUV_ERROR_INVALID_STATE;
    }
    m_course.arrive_at(m_streams.current()->place());
    return NUV_ERROR_OK;
}

// ---- What is heard ----------------------------------------------------------------------------

PlayerView Player::view() const {
    PlayerView view;
    view.state = m_playback.confirmed();
    view.wanted = m_playback.goal();
    view.active = m_course.is_active();
    if (const Session* const session = m_course.session()) {
        view.has_next = session->next().has_value();
        view.has_previous = session->previous().has_value();
        view.track = session->current();
        view.list_revision = session->revision();
    }
    if (heard()) {
        view.stream_id = m_streams.current()->id();
    }
    view.text_count = m_streams.text_count();
    view.played_count = m_streams.played_count();
    view.seek_count = m_seek_count;
    return view;
}

std::optional<HeardTrack> Player::heard() const {
    const Stream* const current = m_streams.current();
    if (!m_playback.is_active() || current == nullptr || !current->is_announced() ||
        !m_course.is_in_session(current->place())) {
        return std::nullopt;
    }
    return HeardTrack{current->place().track, &current->info(), &current->texts()};
}

std::optional<Course::Heard> Player::heard_on_the_way_back() const {
    if (!m_playback.is_active() || m_playback.replaces_streams()) {
        return std::nullopt;
    }
    return Course::Heard{m_playback.seek_goal_ms() ? 0 : m_streams.heard_position_ms(),
                         m_streams.current()->info().seekable};
}

uint64_t Player::position_ms() const {
    return heard() ? m_playback.seek_goal_ms().value_or(m_streams.heard_position_ms()) : 0;
}

}  // namespace local_core
