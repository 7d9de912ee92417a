#include "bus/mpris.h"

#include <algorithm>
#include <chrono>
#include <cmath>

#include "bus/changed_properties.h"
#include "bus/mpris_interface.h"

namespace nuvio::host {

namespace {

// The service reports its position once a second.
constexpr std::chrono::milliseconds kReportDelay{1000};

constexpr ChangedProperty kRootProperties[] = {{kDeviceName, "Identity"}};
constexpr ChangedProperty kPlayerProperties[] = {
    {kPlayerStatus, "PlaybackStatus"}, {kPlayerTrack, "Metadata"},  {kPlayerModes, "Shuffle"},
    {kPlayerModes, "LoopStatus"},      {kDeviceVolume, "Volume"},   {kPlayerActions, "CanGoNext"},
    {kPlayerActions, "CanGoPrevious"}, {kPlayerActions, "CanPlay"}, {kPlayerActions, "CanPause"},
    {kPlayerActions, "CanSeek"},
};

}  // namespace

int Mpris::attach(sd_bus* bus) {
    return attach_mpris(bus, *this);
}

void Mpris::publish(sd_bus* bus, uint32_t changes) {
    if ((changes & kPlayerStatus) != 0) {
        m_expected.reset();
    }
    if ((changes & kPlayerTrack) != 0) {
        m_seek_counts_until = {};
    }
    if (bus == nullptr) {
        return;
    }
    emit_changed(bus, kMprisPath, kMprisRoot, kRootProperties, changes);
    emit_changed(bus, kMprisPath, kMprisPlayer, kPlayerProperties, changes);
    if ((changes & kPlayerSeeked) != 0) {
        sd_bus_emit_signal(bus, kMprisPath, kMprisPlayer, "Seeked", "x",
                           view().position_ms * kUsPerMs);
    }
}

// Whatever is gone back to begins at its start.
void Mpris::preview_start() {
    m_controls.now_playing().preview_seek(0);
}

// Two presses in quick succession undo each other, although the service has not reported yet.
void Mpris::play_pause() {
    const auto now = NowPlaying::Clock::now();
    if (now >= m_expected_until) {
        m_expected.reset();  // the service has refused
    }
    const bool playing = m_expected.value_or(view().status) == android::PLAY_STATE_PLAYING;
    if (m_controls.command(playing ? "PAUSE" : "RESUME")) {
        m_expected = playing ? android::PLAY_STATE_PAUSED : android::PLAY_STATE_PLAYING;
        m_expected_until = now + kReportDelay;
    }
}

void Mpris::seek(int64_t position_ms) {
    m_controls.seek(position_ms);
    m_seek_target_ms = position_ms;
    m_seek_counts_until = NowPlaying::Clock::now() + kReportDelay;
}

// Past the end means the next track. Steps in quick succession add up, although the service has not
// reported the first one yet.
void Mpris::seek_by(int64_t offset_us) {
    const NowPlayingView now = view();
    if (!now.actions.seek) {
        return;
    }
    const bool stepping = NowPlaying::Clock::now() < m_seek_counts_until;
    const int64_t from = stepping ? m_seek_target_ms : now.position_ms;
    // Both far from overflow: a position a seek can carry, and a 64-bit count of microseconds.
    const int64_t target =
        std::clamp<int64_t>(from + offset_us / kUsPerMs, 0, Controls::kMaxSeekMs);
    const int64_t length = now.length_ms();
    if (length > 0 && target > length) {
        m_controls.command("NEXT");
    } else {
        seek(target);
    }
}

// A request for a track that has ended meanwhile, or for a place outside of it, is ignored.
void Mpris::seek_to(const char* track, int64_t position_us) {
    const NowPlayingView now = view();
    if (!now.actions.seek || !now.track || track_path(*now.track) != track || position_us < 0 ||
        (now.length_ms() > 0 && position_us > now.length_ms() * kUsPerMs)) {
        return;
    }
    seek(position_us / kUsPerMs);
}

void Mpris::set_volume(double volume) {
    m_controls.set_volume(static_cast<int>(std::lround(std::clamp(volume, 0.0, 1.0) * 100.0)));
}

}  // namespace nuvio::host
