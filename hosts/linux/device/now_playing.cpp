#include "device/now_playing.h"

#include <algorithm>
#include <cstdlib>
#include <utility>

#include "base/text.h"

namespace nuvio::host {

namespace {

using std::chrono::milliseconds;

// Reports come once a second, or a little later: the position never runs further ahead of the last.
constexpr int64_t kReportIntervalMs = 1500;
// In a track's last half second the service may report as much too little.
constexpr int64_t kHandOverMs = 550;
// A report that differs from what was expected by more than this is a jump.
constexpr int64_t kJumpMs = 1500;
constexpr int64_t kMaxPositionMs = int64_t{1} << 40;  // in microseconds still far from overflow
// What the service sends for a track without a picture.
constexpr char kNoArt[] = "defaultArt.jpg";

std::string text_of(const android::AMessage& info, const char* key) {
    std::string text;
    info.findString(key, &text);
    return to_utf8(text);
}

int number_of(const android::AMessage& info, const char* key) {
    int32_t number = 0;
    info.findInt32(key, &number);
    return number;
}

std::string art_of(const android::AMessage& info) {
    std::string place;
    info.findString("coverArt", &place);
    return place == kNoArt ? std::string() : to_url(place);
}

uint32_t bit_if(bool condition, uint32_t bit) {
    return condition ? bit : 0;
}

LoopMode loop_of(int mode) {
    return mode == 1 ? LoopMode::track : mode == 2 ? LoopMode::playlist : LoopMode::none;
}

}  // namespace

void NowPlaying::changed(uint32_t changes) const {
    if (changes != 0 && m_observer) {
        m_observer(changes);
    }
}

int64_t NowPlaying::position_at(Clock::time_point now) const {
    if (!m_view.is_playing()) {
        return m_view.position_ms;
    }
    const int64_t passed = std::chrono::duration_cast<milliseconds>(now - m_reported).count();
    const int64_t position = m_view.position_ms + std::clamp<int64_t>(passed, 0, kReportIntervalMs);
    const int64_t length = m_view.length_ms();
    return length > 0 ? std::max(std::min(position, length), m_view.position_ms) : position;
}

void NowPlaying::set_status(android::EPlayState status, Clock::time_point now) {
    const std::lock_guard lock(m_mutex);
    if (m_view.status == status) {
        return;
    }
    m_view.position_ms = status == android::PLAY_STATE_STOPPED ? 0 : position_at(now);
    m_reported = now;
    m_view.status = status;
    changed(kPlayerStatus | look_for_session());
}

void NowPlaying::set_position(int64_t position_ms, Clock::time_point now) {
    const std::lock_guard lock(m_mutex);
    const int64_t expected = position_at(now);
    const int64_t length = m_view.length_ms();
    if (expected + kHandOverMs > length && position_ms < expected &&
        position_ms + kHandOverMs > expected && length > 0) {
        return;
    }
    m_view.position_ms = std::clamp<int64_t>(position_ms, 0, kMaxPositionMs);
    m_reported = now;
    const bool jumped = !m_view.is_stopped() && std::abs(m_view.position_ms - expected) > kJumpMs;
    changed(bit_if(jumped, kPlayerSeeked));
}

void NowPlaying::preview_seek(int64_t position_ms) {
    const std::lock_guard lock(m_mutex);
    if (m_view.status == android::PLAY_STATE_PAUSED) {
        m_view.position_ms = position_ms;
        changed(kPlayerSeeked);
    }
}

void NowPlaying::set_has_source(bool has_source) {
    const std::lock_guard lock(m_mutex);
    if (m_view.actions.control != has_source) {
        // Everything goes until a track says otherwise.
        m_view.actions = {has_source, has_source, has_source, has_source};
        changed(kPlayerActions);
    }
}

void NowPlaying::set_has_output(bool has_output) {
    const std::lock_guard lock(m_mutex);
    m_has_output = has_output;
    changed(look_for_session());
}

uint32_t NowPlaying::look_for_session() {
    const bool goes_on = m_view.has_session && m_view.track.has_value();
    const bool has_session = m_has_output && (!m_view.is_stopped() || goes_on);
    return bit_if(std::exchange(m_view.has_session, has_session) != has_session, kPlayerSession);
}

void NowPlaying::show(const android::AMessage& info) {
    ShownTrack track;
    track.title = text_of(info, "trackName");
    track.artist = text_of(info, "artist");
    track.album = text_of(info, "album");
    track.art_url = art_of(info);
    track.length_ms = std::max(number_of(info, "totalTime"), 0);
    const Modes modes = {number_of(info, "shuffle") != 0, loop_of(number_of(info, "repeat"))};

    const std::lock_guard lock(m_mutex);
    uint32_t changes = bit_if(m_view.modes != modes, kPlayerModes);
    m_view.modes = modes;

    // The same track sent again, after a change of mode, keeps its number.
    track.number = m_view.track ? m_view.track->number : 0;
    if (m_view.track != track) {
        track.number = ++m_tracks_shown;
        m_view.track = std::move(track);
        changes |= kPlayerTrack;
        // Skipped to while paused: the service reports no position until playback goes on.
        if (m_view.status == android::PLAY_STATE_PAUSED) {
            m_view.position_ms = 0;
            changes |= kPlayerSeeked;
        }
    }

    if (m_view.actions.control) {
        const Actions actions = {true, number_of(info, "next") != 0, number_of(info, "prev") != 0,
                                 number_of(info, "seek") != 0};
        changes |= bit_if(m_view.actions != actions, kPlayerActions);
        m_view.actions = actions;
    }
    changed(changes);
}

void NowPlaying::clear() {
    const std::lock_guard lock(m_mutex);
    const uint32_t changes = bit_if(m_view.track.has_value(), kPlayerTrack) |
                             bit_if(m_view.modes != Modes(), kPlayerModes);
    m_view.track.reset();
    m_view.modes = {};
    m_view.position_ms = 0;
    changed(changes | look_for_session());
}

NowPlayingView NowPlaying::view(Clock::time_point now) const {
    const std::lock_guard lock(m_mutex);
    NowPlayingView view = m_view;
    view.position_ms = position_at(now);
    return view;
}

}  // namespace nuvio::host
