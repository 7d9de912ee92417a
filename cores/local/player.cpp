#include "local/player.h"

#include <algorithm>
#include <cinttypes>
#include <iterator>
#include <utility>

namespace local_core {

namespace {

// Going back later in a track than this leads to its own beginning.
constexpr uint64_t kRestartAfterMs = 3000;
// The renderer's position is a difference of rounded times: so much it may lie ahead of the sound.
constexpr uint64_t kPositionErrorMs = 2;
// So many tracks in a row that the renderer can't play are a renderer that can't play.
constexpr int kMaxRefused = 3;

}  // namespace

Player::Player(const Delegates& delegates, Control& control, const Logger& logger,
               std::function<void()> on_news)
    : m_delegates(delegates),
      m_control(control),
      m_logger(logger),
      m_decoder(std::move(on_news), delegates.highest_quality, logger) {}

Player::~Player() = default;

// ---- Commands ---------------------------------------------------------------------------------

void Player::apply(Command command) {
    switch (command.verb) {
        case Verb::connect:
            m_session = std::move(command.session);
            m_session->set_modes(m_loop_mode, m_shuffle);
            ++m_session_count;
            m_goal =
                command.become_active ? NUV_PLAYBACK_STATE_PLAYING : NUV_PLAYBACK_STATE_STOPPED;
            m_active = command.become_active;
            m_replaces_streams = true;
            m_backwards = false;
            m_refused = 0;  // the first of them was a track of the old session
            m_seek_goal_ms.reset();
            return;
        case Verb::deactivate:
            m_session.reset();
            m_goal = NUV_PLAYBACK_STATE_STOPPED;
            m_active = false;
            m_seek_goal_ms.reset();
            return;
        default:
            break;
    }
    if (!m_session) {
        return;
    }
    switch (command.verb) {
        case Verb::pause:
            if (m_goal == NUV_PLAYBACK_STATE_PLAYING) {
                m_goal = NUV_PLAYBACK_STATE_PAUSED;
            }
            break;
        case Verb::resume:
            m_goal = NUV_PLAYBACK_STATE_PLAYING;
            m_active = true;
            m_place_kept = false;
            break;
        case Verb::stop:
            m_goal = NUV_PLAYBACK_STATE_STOPPED;
            m_replaces_streams = true;
            m_seek_goal_ms.reset();
            break;
        case Verb::next:
            if (m_session->next()) {
                m_backwards = false;
                skip_to(*m_session->next());
            }
            break;
        case Verb::previous:
            go_back();
            break;
        case Verb::seek:
            if (m_goal != NUV_PLAYBACK_STATE_STOPPED) {
                m_seek_goal_ms = command.position_ms;
            }
            break;
        case Verb::connect:
        case Verb::deactivate:
            break;
    }
}

void Player::set_modes(nuv_loop_mode loop_mode, bool shuffle) {
    m_loop_mode = loop_mode;
    m_shuffle = shuffle;
    if (m_session) {
        m_session->set_modes(loop_mode, shuffle);
    }
}

void Player::skip_to(size_t track) {
    m_session->move_to(track);
    m_replaces_streams = true;
    m_seek_goal_ms.reset();
}

void Player::go_back() {
    const bool heard = renderer_active() && !m_replaces_streams;
    uint64_t position_ms = m_seek_goal_ms.value_or(0);
    if (heard && !m_seek_goal_ms) {
        position_ms = heard_position_ms();
    }
    if (position_ms <= kRestartAfterMs && m_session->previous()) {
        m_backwards = true;
        skip_to(*m_session->previous());
    } else if (heard && DecodeThread::info(*m_current->pipe).seekable) {
        m_seek_goal_ms = 0;
    } else {
        skip_to(m_session->current());
    }
}

void Player::end_session() {
    m_logger.write(LogLevel::info, kCloudClient, "Session %s: nothing is left to play",
                   m_session->id().c_str());
    m_session->rewind();
    m_goal = NUV_PLAYBACK_STATE_STOPPED;
    m_active = false;
    m_seek_goal_ms.reset();
}

void Player::after_last_sample() {
    if (is_to_stop()) {
        return;
    }
    m_backwards = false;
    // The next track was not announced in time to be queued behind this one.
    if (m_session->follower()) {
        skip_to(*m_session->follower());
    } else {
        end_session();
    }
}

void Player::skip_unplayable(const Stream& stream) {
    m_logger.write(LogLevel::warning, kContentFetcher, "Skipping %s: %s",
                   m_session->track(stream.track).path.c_str(),
                   DecodeThread::open_error(*stream.pipe).c_str());
    m_session->mark_unplayable(stream.track);
}

// ---- Steps ------------------------------------------------------------------------------------

// First what must be gone before anything new can come: playback, then streams. Only then the
// current stream, which the playback that is initiated needs. A pause comes before a seek, which it
// makes itself to keep its place, and both before the next stream, which a seek may take back.
bool Player::advance() {
    static constexpr bool (Player::*kSteps[])() = {
        &Player::stop_stale_playback,
        &Player::dispose_stale_streams,
        &Player::start_current,
        &Player::initiate,
        &Player::pause_or_resume,
        &Player::begin_seek,
        &Player::end_seek,
        &Player::withdraw_next,
        &Player::start_next,
    };
    return std::any_of(std::begin(kSteps), std::end(kSteps),
                       [this](const auto step) { return (this->*step)(); });
}

bool Player::renderer_active() const {
    return m_renderer == Renderer::playing || m_renderer == Renderer::paused;
}

// The renderer plays the current stream, and nothing is about to change that.
bool Player::plays_undisturbed() const {
    return renderer_active() && !is_to_stop() && !m_seeking && !m_retired && m_current && m_session;
}

bool Player::stop_stale_playback() {
    if (m_renderer == Renderer::stopped || !is_to_stop()) {
        return false;
    }
    m_delegates.media.stop_playback(m_delegates.core, m_delegates.media.context);
    if (m_renderer != Renderer::stopped) {
        m_logger.write(LogLevel::warning, kAudioStreamManager,
                       "The renderer did not confirm the stop");
        playback_stopped();
    }
    return true;
}

bool Player::dispose_stale_streams() {
    bool progress = false;
    if (m_retired) {
        release(std::exchange(m_retired, nullptr));
        progress = true;
    }
    if (m_renderer != Renderer::stopped || !is_to_stop()) {
        return progress;
    }
    // A skip to the track that was coming anyway keeps what has been decoded of it.
    const bool skips_to_next = m_goal != NUV_PLAYBACK_STATE_STOPPED && m_next && m_session &&
                               m_next->track == m_session->current() &&
                               m_next->session_count == m_session_count && !m_next->has_flowed;
    progress |= m_next || m_current;
    if (m_next) {
        withdraw(*m_next);
    }
    if (m_current) {
        release(std::exchange(m_current, nullptr));
    }
    if (skips_to_next) {
        m_current = std::exchange(m_next, nullptr);
    } else if (m_next) {
        release(std::exchange(m_next, nullptr));
    }
    m_replaces_streams = false;
    if (m_goal == NUV_PLAYBACK_STATE_STOPPED) {
        m_state = NUV_PLAYBACK_STATE_STOPPED;
    }
    return progress;
}

bool Player::start_current() {
    if (is_to_stop() || !m_session || m_renderer != Renderer::stopped) {
        return false;
    }
    if (!m_current) {
        m_current = open_stream(m_session->current());
    }
    if (m_current->id != 0) {
        return false;
    }
    switch (m_decoder.opening(*m_current->pipe)) {
        case DecodeThread::Opening::in_progress:
            return false;
        case DecodeThread::Opening::ready:
            announce(*m_current);
            return true;
        case DecodeThread::Opening::failed:
            break;
    }
    skip_unplayable(*m_current);
    release(std::exchange(m_current, nullptr));
    const auto onward =
        m_backwards && m_session->previous() ? m_session->previous() : m_session->next();
    if (onward) {
        m_session->move_to(*onward);
    } else {
        end_session();
    }
    return true;
}

bool Player::initiate() {
    if (is_to_stop() || m_renderer != Renderer::stopped || !m_current || m_current->id == 0) {
        return false;
    }
    m_renderer = Renderer::initiating;
    m_initial = m_goal;
    m_delegates.media.initiate_playback(m_delegates.core, m_initial, m_delegates.media.context);
    return true;
}

bool Player::pause_or_resume() {
    if (m_seeking || m_awaits_answer) {
        return false;
    }
    const nuv_media_delegate& media = m_delegates.media;
    if (m_goal == NUV_PLAYBACK_STATE_PAUSED && m_renderer == Renderer::playing) {
        if (keep_place()) {
            return true;
        }
        m_awaits_answer = true;
        media.pause_playback(m_delegates.core, media.context);
        return true;
    }
    if (m_goal == NUV_PLAYBACK_STATE_PLAYING && m_renderer == Renderer::paused) {
        m_awaits_answer = true;
        media.resume_playback(m_delegates.core, media.context);
        return true;
    }
    return false;
}

// A pause drops what the output still holds. The stream is positioned at what is heard before it:
// while the renderer plays, for only then does it know that place and report it.
bool Player::keep_place() {
    if (m_place_kept || !plays_undisturbed() || !DecodeThread::info(*m_current->pipe).seekable) {
        return false;
    }
    if (!m_seek_goal_ms) {
        const uint64_t position_ms = heard_position_ms();
        m_seek_goal_ms = position_ms - std::min(position_ms, kPositionErrorMs);
    }
    m_place_kept = true;
    return begin_seek();
}

// The renderer takes the next stream's share of the output's buffer for the current one's: its
// answer is too small by that, and 0 where that leaves nothing. The time since tells it then.
uint64_t Player::heard_position_ms() const {
    const uint64_t told =
        m_delegates.media.get_playback_position(m_delegates.core, m_delegates.media.context);
    if (!m_next || m_next->taken_bytes == 0) {
        return told;
    }
    const TrackInfo& next = DecodeThread::info(*m_next->pipe);
    const auto since = std::chrono::duration_cast<std::chrono::milliseconds>(
        std::chrono::steady_clock::now() - m_hand_over_time);
    return told > 0 ? told + next.position_ms(m_next->taken_bytes / next.frame_bytes)
                    : m_hand_over_position_ms + static_cast<uint64_t>(since.count());
}

bool Player::begin_seek() {
    if (!m_seek_goal_ms || m_awaits_answer || !plays_undisturbed()) {
        return false;
    }
    m_seek_target_ms = *std::exchange(m_seek_goal_ms, std::nullopt);
    const TrackInfo& info = DecodeThread::info(*m_current->pipe);
    if (!info.seekable) {
        m_logger.write(LogLevel::warning, kAudioStreamManager,
                       "[Stream %" PRIu64 "]: can't be positioned", m_current->id);
        return false;
    }
    m_seeking = true;
    m_delegates.media.seek_in_progress(m_delegates.core, m_delegates.media.context);
    if (!renderer_active()) {
        return true;  // an error ended the playback
    }
    give_back_block(*m_current);
    m_current->finished = false;
    m_current->has_flowed = true;
    m_current->taken_bytes = 0;
    m_decoder.seek(*m_current->pipe, info.frame_at(m_seek_target_ms));
    // What the renderer has taken of the next track was dropped with the rest of its buffer.
    if (m_next && m_next->has_flowed) {
        release(std::exchange(m_next, nullptr));
    }
    return true;
}

bool Player::end_seek() {
    if (!m_seeking) {
        return false;
    }
    const auto frame = m_decoder.seek_result(*m_current->pipe);
    if (!frame) {
        return false;
    }
    m_seeking = false;
    // A frame lies between two milliseconds: where it is the one that was asked for, so is its
    // position, and the renderer counts on from there exactly.
    const TrackInfo& info = DecodeThread::info(*m_current->pipe);
    const bool exact =
        *frame == info.frame_at(m_seek_target_ms) && m_seek_target_ms <= info.duration_ms();
    m_delegates.audio.seeked(m_delegates.core, m_current->id,
                             exact ? m_seek_target_ms : info.position_ms(*frame),
                             m_delegates.audio.context);
    return true;
}

// The modes may have changed what follows; a stream that already flows stays.
bool Player::withdraw_next() {
    if (!plays_undisturbed() || !m_next || m_next->has_flowed ||
        m_session->follower() == m_next->track) {
        return false;
    }
    const bool announced = m_next->id != 0;
    release(std::exchange(m_next, nullptr));
    return announced;
}

bool Player::start_next() {
    if (!plays_undisturbed() || !m_session->follower()) {
        return false;
    }
    if (!m_next) {
        if (!DecodeThread::decoded_wholly(*m_current->pipe)) {
            return false;
        }
        m_next = open_stream(*m_session->follower());
    }
    if (m_next->id != 0) {
        return false;
    }
    switch (m_decoder.opening(*m_next->pipe)) {
        case DecodeThread::Opening::in_progress:
            return false;
        case DecodeThread::Opening::ready:
            announce(*m_next);
            return true;
        case DecodeThread::Opening::failed:
            break;
    }
    skip_unplayable(*m_next);
    release(std::exchange(m_next, nullptr));
    return true;
}

// ---- Streams ----------------------------------------------------------------------------------

Player::StreamPtr Player::open_stream(size_t track) {
    return std::make_unique<Stream>(
        Stream{m_decoder.open(m_session->track(track)), track, m_session_count});
}

void Player::announce(Stream& stream) {
    const TrackInfo& info = DecodeThread::info(*stream.pipe);
    const TrackTexts& texts = DecodeThread::texts(*stream.pipe);
    const nuv_audio_stream_delegate& audio = m_delegates.audio;
    stream.id = ++m_last_stream_id;
    m_control.add_texts(stream.id, &texts);
    audio.started(m_delegates.core, stream.id, {info.format, info.duration_ms()}, 0, audio.context);
    const nuv_stream_metadata metadata = texts.view();
    audio.metadata(m_delegates.core, stream.id, &metadata, audio.context);
}

void Player::withdraw(Stream& stream) {
    if (stream.id == 0) {
        return;
    }
    m_delegates.audio.dispose(m_delegates.core, stream.id, m_delegates.audio.context);
    m_control.remove_texts(stream.id);
    stream.id = 0;
    stream.open = false;
    stream.finished = false;
}

void Player::release(StreamPtr stream) {
    withdraw(*stream);
    give_back_block(*stream);
    m_decoder.close(std::move(stream->pipe));
}

void Player::give_back_block(Stream& stream) {
    if (stream.block.data != nullptr) {
        m_decoder.give_back(std::exchange(stream.block, {}));
    }
    stream.offered_bytes = 0;
}

bool Player::deliver() {
    bool more = false;
    for (const StreamPtr* stream : {&m_current, &m_next}) {
        if (plays_undisturbed() && *stream) {
            more |= offer(**stream);
        }
    }
    return more;
}

bool Player::offer(Stream& stream) {
    if (!stream.open || stream.finished) {
        return false;
    }
    if (stream.block.data == nullptr) {
        switch (m_decoder.take(*stream.pipe, &stream.block)) {
            case DecodeThread::Taken::wait:
                return false;
            case DecodeThread::Taken::end:
                finish(stream);
                return true;
            case DecodeThread::Taken::block:
                break;
        }
    }
    const size_t left = stream.block.size_bytes - stream.offered_bytes;
    if (m_next.get() == &stream && stream.taken_bytes == 0) {
        m_hand_over_position_ms = heard_position_ms();
        m_hand_over_time = std::chrono::steady_clock::now();
    }
    stream.open = false;  // unless all is taken, or the renderer opens it again meanwhile
    const size_t taken = std::min(m_delegates.audio.data(m_delegates.core, stream.id,
                                                         stream.block.data + stream.offered_bytes,
                                                         left, m_delegates.audio.context),
                                  left);
    stream.has_flowed |= taken > 0;
    if (taken > 0) {
        m_refused = 0;
    }
    stream.offered_bytes += taken;
    stream.taken_bytes += taken;
    if (taken == left) {
        stream.open = true;
        give_back_block(stream);
    }
    return stream.open;
}

void Player::finish(Stream& stream) {
    stream.finished = true;
    if (!stream.has_flowed) {
        m_session->mark_unplayable(stream.track);  // or repeating it would never pause for breath
    }
    m_delegates.audio.finished(m_delegates.core, stream.id, m_delegates.audio.context);
}

// ---- From the renderer ------------------------------------------------------------------------

nuv_error Player::playback_initiated() {
    if (m_renderer == Renderer::initiating) {
        m_renderer = m_initial == NUV_PLAYBACK_STATE_PAUSED ? Renderer::paused : Renderer::playing;
        m_state = m_initial;
        m_fresh_start = true;
        return NUV_ERROR_OK;
    }
    // A change of track inside the playback is confirmed the same way.
    return renderer_active() ? NUV_ERROR_OK : NUV_ERROR_INVALID_STATE;
}

nuv_error Player::playback_paused() {
    if (m_renderer != Renderer::playing) {
        return NUV_ERROR_INVALID_STATE;
    }
    m_renderer = Renderer::paused;
    m_state = NUV_PLAYBACK_STATE_PAUSED;
    m_place_kept = false;
    if (!std::exchange(m_awaits_answer, false)) {
        m_goal = NUV_PLAYBACK_STATE_PAUSED;
    }
    return NUV_ERROR_OK;
}

nuv_error Player::playback_resumed() {
    if (m_renderer != Renderer::paused) {
        return NUV_ERROR_INVALID_STATE;
    }
    m_renderer = Renderer::playing;
    m_state = NUV_PLAYBACK_STATE_PLAYING;
    if (!std::exchange(m_awaits_answer, false)) {
        m_goal = NUV_PLAYBACK_STATE_PLAYING;
    }
    return NUV_ERROR_OK;
}

nuv_error Player::playback_stopped() {
    if (m_renderer == Renderer::stopped) {
        return NUV_ERROR_INVALID_STATE;
    }
    if (!is_to_stop()) {
        m_goal = NUV_PLAYBACK_STATE_STOPPED;  // the renderer's own decision
    }
    m_renderer = Renderer::stopped;
    m_awaits_answer = false;
    m_seeking = false;
    m_place_kept = false;
    return NUV_ERROR_OK;
}

nuv_error Player::playback_error() {
    if (m_renderer == Renderer::stopped) {
        return NUV_ERROR_INVALID_STATE;
    }
    m_logger.write(LogLevel::error, kAudioStreamManager, "The renderer reports a playback error");
    m_seek_goal_ms.reset();
    if (!skip_refused()) {
        m_goal = NUV_PLAYBACK_STATE_STOPPED;
    }
    return playback_stopped();
}

// When nothing of the track was taken it may be its format, and the next one may be played. False
// when the renderer can play none: the session is then where it was.
bool Player::skip_refused() {
    if (is_to_stop() || !m_session || !m_current || m_current->has_flowed) {
        return false;
    }
    if (m_refused == 0) {
        m_first_refused = m_session->current();
    }
    if (++m_refused < kMaxRefused && m_session->next()) {
        skip_to(*m_session->next());
        return true;
    }
    skip_to(m_first_refused);
    m_refused = 0;
    return false;
}

nuv_error Player::playback_finished(bool no_next_track) {
    if (!renderer_active() || m_retired || !m_current || !m_current->finished) {
        return NUV_ERROR_INVALID_STATE;
    }
    m_seek_goal_ms.reset();  // it was meant for the track that is over
    m_place_kept = false;
    if (no_next_track) {
        m_renderer = Renderer::stopped;  // it stops by itself
        m_awaits_answer = false;
        after_last_sample();
        return NUV_ERROR_OK;
    }
    if (!m_next || m_next->id == 0) {
        return NUV_ERROR_INVALID_STATE;
    }
    m_retired = std::exchange(m_current, std::exchange(m_next, nullptr));
    if (m_session && m_current->session_count == m_session_count) {
        m_session->move_to(m_current->track);
    }
    return NUV_ERROR_OK;
}

nuv_error Player::resume_delivery(uint64_t stream_id) {
    for (const StreamPtr* stream : {&m_current, &m_next, &m_retired}) {
        if (*stream && (*stream)->id == stream_id && stream_id != 0) {
            (*stream)->open = true;
            return NUV_ERROR_OK;
        }
    }
    return NUV_ERROR_NOT_FOUND;
}

PlayerView Player::view() const {
    PlayerView view;
    view.state = m_state;
    view.wanted = m_goal;
    view.active = m_active;
    view.has_next = m_session && m_session->next();
    view.has_previous = m_session && m_session->previous();
    return view;
}

}  // namespace local_core
