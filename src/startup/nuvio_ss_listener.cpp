#include "startup/nuvio_ss_listener.h"

#include <syslog.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <limits>
#include <mutex>
#include <string>

#include "bridge/bridge.h"
#include "bridge/ui_manager.h"
#include "common/number.h"
#include "platform/Kora.h"
#include "sdk/nuvio_connect.h"

namespace android {
namespace {

std::mutex g_instanceMutex;
sp<NuvioSSListener> g_instance;

// Number of the platform's current source, 0 for none; as of the latest setSource.
std::atomic<int32_t> icurrent_playing_source{0};

// Kept to the end of the process: reports may come until then.
KORAHelper& getKoraHelper() {
    static std::mutex mutex;
    static KORAHelper* helper = nullptr;
    const std::scoped_lock lock(mutex);
    if (helper == nullptr) {
        helper = new KORAHelper;
    }
    return *helper;
}

std::string readMessage(KoraMessage id) {
    std::string text;
    getKoraHelper().readRemoteMessage(id, text);
    return text;
}

void writeMessage(KoraMessage id, const std::string& text) {
    getKoraHelper().writeRemoteMessage(id, text, 0);
}

// 0 for a text without a number, the nearest value for one that does not fit.
int32_t toInt32(const std::string& text) {
    return static_cast<int32_t>(std::clamp<long>(nuvio::leading_number(text),
                                                 std::numeric_limits<int32_t>::min(),
                                                 std::numeric_limits<int32_t>::max()));
}

struct PlayStateRow {
    int32_t sdkState;
    EPlayState playerState;
    const char* message;
};

constexpr std::array kPlayStates = {
    PlayStateRow{NUV_PLAYBACK_STATE_PLAYING, PLAY_STATE_PLAYING, "0"},
    PlayStateRow{NUV_PLAYBACK_STATE_PAUSED, PLAY_STATE_PAUSED, "2"},
    PlayStateRow{NUV_PLAYBACK_STATE_STOPPED, PLAY_STATE_STOPPED, "1"},
};

void setText(AMessage& message, const char* key, const std::string& text) {
    message.setString(key, text.c_str(), text.size());
}

sp<AMessage> makePlayBackInfo(const TrackInfo& track) {
    sp<AMessage> message = new AMessage(0, 0);
    setText(*message, "album", track.album);
    setText(*message, "artist", track.artist);
    setText(*message, "trackName", track.trackName);
    message->setInt32("totalTime", toInt32(track.totalTime));
    setText(*message, "coverArt", track.coverArt.empty() ? "defaultArt.jpg" : track.coverArt);
    setText(*message, "codec", track.codec);
    setText(*message, "sampleRate", track.samplingRate);
    setText(*message, "bitdepth", track.bitdepth);
    setText(*message, "channels", track.channels);
    message->setInt32("repeat", track.repeat);
    message->setInt32("shuffle", track.shuffle);
    message->setInt32("next", 1);
    message->setInt32("prev", 1);
    message->setInt32("currentSource", icurrent_playing_source);
    message->setInt32("seek", 1);
    return message;
}

}  // namespace

sp<NuvioSSListener> NuvioSSListener::getInstance() {
    const std::scoped_lock lock(g_instanceMutex);
    if (g_instance == nullptr) {
        g_instance = new NuvioSSListener;
    }
    return g_instance;
}

void NuvioSSListener::releaseInstance() {
    sp<NuvioSSListener> instance;
    {
        const std::scoped_lock lock(g_instanceMutex);
        std::swap(instance, g_instance);
    }
    if (instance != nullptr) {
        SourceSwitchClient::DisconnectMySource(instance);
    }
}

// ---- The output

bool NuvioSSListener::setSource() {
    std::puts("setSource\n\n\n");
    const bool granted = SourceSwitchClient::PlayMySource(getInstance(), SOURCE_TYPE_NUVIO_CONNECT);
    icurrent_playing_source = toInt32(readMessage(KORA_CURRENT_SOURCE));
    if (!granted) {
        syslog(LOG_ERR, "DEFAULT: Nuvio is not allowed to setSource");
        return false;
    }
    const std::string volume = "VOLUME:" + readMessage(KORA_VOLUME);
    const std::string mute = "MUTE:" + readMessage(KORA_MUTE);
    syslog(LOG_ERR, "DEFAULT: setSource mute = %s \n", mute.c_str());
    syslog(LOG_ERR, "DEFAULT: setSource volume = %s \n", volume.c_str());
    postEventTo_Nuvio(volume);
    postEventTo_Nuvio(mute);
    return true;
}

void NuvioSSListener::DropSource() {
    syslog(LOG_ERR, "DEFAULT: %s() being called", __func__);
    const sp<NuvioSSListener> self(this);
    SourceSwitchClient::UpdatePlayerState(self, PLAY_STATE_STOPPED);
    SourceSwitchClient::NotifyPlaybackStopped(self);
    SourceSwitchClient::DisconnectMySource(self);
}

// ---- Reports

void NuvioSSListener::reportPlayState(int32_t state) {
    for (const PlayStateRow& row : kPlayStates) {
        if (row.sdkState == state) {
            SourceSwitchClient::UpdatePlayerState(sp<NuvioSSListener>(this), row.playerState);
            writeMessage(KORA_PLAY_STATE, row.message);
        }
    }
}

void NuvioSSListener::reportPlaybackPosition(uint64_t positionMs) {
    writeMessage(KORA_PLAYBACK_POSITION, std::to_string(positionMs));
}

void NuvioSSListener::reportMuteState(int32_t muted) {
    writeMessage(KORA_MUTE, muted != 0 ? "MUTE" : "UNMUTE");
}

void NuvioSSListener::reportVolume(int32_t volume) {
    const int32_t source = icurrent_playing_source;
    syslog(LOG_ERR, "DEFAULT: icurrent_playing_source = %d\n", source);
    if (source != 0) {
        SourceSwitchClient::UpdateAppVolume(std::to_string(volume));
    }
}

void NuvioSSListener::UpdateUIPlayBackInfo(const TrackInfo& track) {
    syslog(LOG_INFO, "DEFAULT: %s \n", __func__);
    const sp<IUIManager> manager = getUIManager();
    if (manager != nullptr) {
        manager->updatePlayBackInfo(makePlayBackInfo(track));
    }
}

// ---- Notifications

void NuvioSSListener::OnSourceSwitchEvent() {
    std::puts("OnSourceSwitchEvent\n");
    postEventTo_Nuvio("ONSOURCESWITCH");
    const sp<NuvioSSListener> self(this);
    SourceSwitchClient::NotifyPlaybackStopped(self);
    SourceSwitchClient::UpdatePlayerState(self, PLAY_STATE_STOPPED);
}

void NuvioSSListener::OnSourceEvent(const char* command) {
    if (command == nullptr) {
        syslog(LOG_ERR, "DEFAULT: command without a text, ignored");
        return;
    }
    syslog(LOG_ERR, "DEFAULT: sevent = %s\n\n\n", command);
    postEventTo_Nuvio(command);
}

void NuvioSSListener::OnVolumeChangeEvent(const char* volume) {
    if (volume == nullptr) {
        syslog(LOG_ERR, "DEFAULT: volume without a text, ignored");
        return;
    }
    std::printf("%s : Volume OnVolumeChangeEvent = %s\n", __func__, volume);
    const std::string command = std::string("VOLUME:") + volume;
    syslog(LOG_ERR, "DEFAULT: Nuvio player : Volume change event tvolume = %s \n", command.c_str());
    postEventTo_Nuvio(command);
}

}  // namespace android
