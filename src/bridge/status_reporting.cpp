// NuvioConnect: from the SDK's state to the platform: play state, position, volume, mute, track.
#include <syslog.h>

#include <algorithm>
#include <chrono>
#include <memory>

#include "bridge/bridge.h"
#include "bridge/bridge_private.h"
#include "bridge/ui_manager.h"

namespace android {
namespace {

using namespace std::chrono_literals;

// A new stream's metadata reaches the SDK a moment after the stream starts to play.
constexpr auto kMetadataDelay = 1s;

constexpr char kPlaybackStatus[] = "POST_PLAYSTATUS";
constexpr char kShuffleRepeat[] = "SHUFFLE_REPEAT";

bool showsTrack(const std::string& command) {
    return command == kPlaybackStatus || command == kShuffleRepeat;
}

std::string textOf(const char* text) {
    return text == nullptr ? "" : text;
}

}  // namespace

// ---- Hooks, loop's thread

void NuvioConnect::reportPlaybackPosition(uint64_t position_ms) {
    if (m_iActiveStatus == NUV_PLAYBACK_STATE_PLAYING) {
        m_listener->reportPlaybackPosition(position_ms);
    }
}

void NuvioConnect::postVolumeStatus() {
    m_bdeviceVolume = true;
    postEventTo_Nuvio("VOLUME_STATUS");
}

void NuvioConnect::postPlaybackStatus(int status) {
    m_iPlaybackStatus = status;
    syslog(LOG_ERR, "NuvioConnect: nuvio playbackstatus = %d %d", status, m_iPlaybackStatus.load());
    postEventTo_Nuvio(kPlaybackStatus);
}

// ---- Status commands

nuv_error NuvioConnect::handleMuteState() {
    bool muted = false;
    nuv_connect_get_mute_state(m_core, &muted);
    m_listener->reportMuteState(static_cast<int32_t>(muted));
    return NUV_ERROR_OK;
}

nuv_error NuvioConnect::handleVolumeStatus() {
    const bool reported = m_bdeviceVolume;
    syslog(LOG_ERR, "NuvioConnect: m_bdeviceVolume = %d", static_cast<int>(reported));
    if (!reported) {
        return NUV_ERROR_OK;
    }
    uint32_t volume = 0;
    const nuv_error result = nuv_connect_get_volume(m_core, &volume);
    syslog(LOG_ERR, "NuvioConnect: update volume = %d", static_cast<int>(volume));
    m_listener->reportVolume(static_cast<int32_t>(volume));
    return result;
}

nuv_error NuvioConnect::handleShuffleRepeat() {
    if (isPlayingOrPaused()) {
        m_prevTitle.clear();  // the UI is sent the new modes even for the same title
        updateTrackInfo(m_iPlaybackStatus);
    }
    return NUV_ERROR_OK;
}

nuv_error NuvioConnect::handlePlaybackStatus() {
    const int status = m_iPlaybackStatus;
    syslog(LOG_ERR, "NuvioConnect: playbackstatus in update = %d", status);
    if (status != NUV_PLAYBACK_STATE_STOPPED) {
        m_sourceSwitched = false;
    }
    m_listener->reportPlayState(status);
    updateTrackInfo(status);
    return NUV_ERROR_OK;
}

bool NuvioConnect::isPlayingOrPaused() const {
    const int status = m_iActiveStatus;
    return status == NUV_PLAYBACK_STATE_PLAYING || status == NUV_PLAYBACK_STATE_PAUSED;
}

// ---- The track

void NuvioConnect::updateTrackInfo(int status) {
    syslog(LOG_ERR, "NuvioConnect: update playbackstatus\t = %d\n", status);
    if (status == NUV_PLAYBACK_STATE_STOPPED) {
        handleStopped();
        return;
    }
    m_iActiveStatus = status;
    if (isPlayingOrPaused()) {
        showPlayingTrack();
    }
}

void NuvioConnect::showPlayingTrack() {
    const std::optional<PlayingTrack> track = waitForPlayingTrack();
    if (!track) {
        return;
    }
    fillTrackInfo(*track);
    syslog(LOG_ERR,
           "NuvioConnect: currTrackInfo.samplingRate = %s prevtitle = %s current titile = %s",
           currTrackInfo.samplingRate.c_str(), m_prevTitle.c_str(), track->title.c_str());
    if (track->title != m_prevTitle) {
        m_listener->UpdateUIPlayBackInfo(currTrackInfo);
    }
    m_prevTitle = track->title;
}

void NuvioConnect::handleStopped() {
    m_prevTitle.clear();  // the next track is sent to the UI whatever its title
    bool active = false;
    if (nuv_connect_get_renderer_active_state(m_core, &active) != NUV_ERROR_OK) {
        return;
    }
    if (!active && !m_sourceSwitched) {
        resetMetadata();
        return;
    }
    syslog(LOG_ERR, "NuvioConnect: Renderer is active, skip metadata reset \n");
}

// A newer change shows the same track, or says that there is none: of a storm of changes only the
// last one waits.
bool NuvioConnect::waitForMetadata() {
    std::unique_lock lock(s_entriesMutex);
    const bool outdated = s_queueCondition.wait_for(lock, m_stop, kMetadataDelay, [this] {
        return std::ranges::any_of(m_eventQueue, showsTrack);
    });
    return !outdated && !m_stop.stop_requested();
}

// Nothing when two tries found none, a newer change is queued or the bridge is stopping.
std::optional<NuvioConnect::PlayingTrack> NuvioConnect::waitForPlayingTrack() {
    std::optional<PlayingTrack> track;
    for (int tries = 2; tries > 0 && !track && waitForMetadata(); --tries) {
        track = fetchPlayingTrack();
    }
    return track;
}

std::optional<NuvioConnect::PlayingTrack> NuvioConnect::fetchPlayingTrack() {
    // The loop's copy outlives the question where the loop is late.
    const auto track = std::make_shared<std::optional<PlayingTrack>>();
    const bool answered = m_loopCall->run(m_stop, [this, track] { *track = copyPlayingTrack(); });
    if (!answered && !m_stop.stop_requested()) {
        syslog(LOG_ERR, "NuvioConnect: the event loop does not answer, no metadata");
    }
    return answered ? std::move(*track) : std::nullopt;
}

// The record's texts and the source live only as long as the loop does not go on.
std::optional<NuvioConnect::PlayingTrack> NuvioConnect::copyPlayingTrack() const {
    const std::unique_ptr<nuv_stream_metadata> metadata(callmetadata(m_core, m_renderer));
    if (metadata == nullptr) {
        return std::nullopt;
    }
    PlayingTrack track{textOf(metadata->title),
                       textOf(metadata->artist),
                       textOf(metadata->album),
                       textOf(metadata->album_art_url),
                       {},
                       0};
    audio_renderer_get_playing_format(&track.format, m_renderer);
    track.durationMs = audio_renderer_get_playing_duration(m_renderer);
    return track;
}

void NuvioConnect::fillTrackInfo(const PlayingTrack& track) {
    bool shuffle = false;
    nuv_loop_mode loopMode = NUV_LOOP_MODE_OFF;
    nuv_connect_get_shuffle_mode(m_core, &shuffle);
    nuv_connect_get_loop_mode(m_core, &loopMode);
    syslog(LOG_ERR, "NuvioConnect: loop_mode = %d shuffle_mode = %d\n", static_cast<int>(loopMode),
           static_cast<int>(shuffle));
    currTrackInfo.artist = track.artist;
    currTrackInfo.trackName = track.title;
    currTrackInfo.album = track.album;
    currTrackInfo.totalTime = std::to_string(track.durationMs);
    currTrackInfo.coverArt = track.albumArtUrl;
    currTrackInfo.samplingRate = std::to_string(track.format.sample_rate);
    currTrackInfo.bitdepth =
        track.format.sample_format != NUV_AUDIO_SAMPLE_FORMAT_16_BIT ? "24" : "16";
    currTrackInfo.channels = std::to_string(track.format.channel_count);
    currTrackInfo.shuffle = static_cast<int32_t>(shuffle);
    currTrackInfo.repeat = static_cast<int32_t>(loopMode);
}

void NuvioConnect::resetMetadata() {
    const sp<IUIManager> manager = getUIManager();
    if (manager != nullptr) {
        manager->clearPlayBackInfo(new AMessage(0, 0));
    }
}

}  // namespace android
