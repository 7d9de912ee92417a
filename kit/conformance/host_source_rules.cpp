// Who has the output, and what is shown.
#include <platform/UIManager.h>

#include "common/number.h"
#include "conformance/host_rules.h"

namespace nuvio::kit {
namespace {

std::string check_source() {
    Stopwatch watch;
    KORAHelper kora;
    const auto gone = std::make_shared<std::atomic<bool>>(false);
    sp<BnSourceSwitchListener> source = new Source(gone);
    const auto ask = [&] {
        return SourceSwitchClient::PlayMySource(source, SOURCE_TYPE_NUVIO_CONNECT);
    };
    const bool granted = watch.time("PlayMySource", kLimit, ask);
    expect(source->getStrongCount() > 1, "the listener is not kept, granted or not");
    std::string number;
    kora.readRemoteMessage(KORA_CURRENT_SOURCE, number);
    if (granted) {
        expect(nuvio::leading_number(number) != 0, "the output is granted, but message 50 is \"" +
                                                       number + "\": volume would not be reported");
    }
    for (const EPlayState state : {PLAY_STATE_PLAYING, PLAY_STATE_PAUSED, PLAY_STATE_STOPPED}) {
        watch.time("UpdatePlayerState", kLimit,
                   [&] { SourceSwitchClient::UpdatePlayerState(source, state); });
    }
    for (const char* volume : {"0", "37", "100"}) {
        watch.time("UpdateAppVolume", kLimit, [&] { SourceSwitchClient::UpdateAppVolume(volume); });
    }
    for (const char* mute : {"MUTE", "UNMUTE"}) {
        expect(watch.time("message 63", kLimit,
                          [&] { return kora.writeRemoteMessage(KORA_MUTE, mute, 0); }),
               "message 63 is not taken");
    }
    // As a source switch and a standby do it, one after the other.
    for (int i = 0; i < 2; ++i) {
        watch.time("NotifyPlaybackStopped", kLimit,
                   [&] { SourceSwitchClient::NotifyPlaybackStopped(source); });
        watch.time("DisconnectMySource", kLimit,
                   [&] { SourceSwitchClient::DisconnectMySource(source); });
    }
    source.clear();
    expect(comes([&] { return gone->load(); }), "the listener is kept after its source is gone");
    return std::string(granted ? "granted" : "refused") + "; " + watch.longest();
}

std::string check_display() {
    Stopwatch watch;
    expect(IUIManager::asInterface(nullptr) == nullptr, "of null there is an interface");
    const sp<IServiceManager> services = defaultServiceManager();
    expect(services != nullptr, "there is no service manager");
    const auto gone = std::make_shared<std::atomic<bool>>(false);
    const sp<BnSourceSwitchListener> foreign = new Source(gone);
    expect(IUIManager::asInterface(sp<IBinder>(foreign.get())) == nullptr,
           "another service's binder counts as the user interface's");
    expect(services->getService("there.is.no.such.service") == nullptr,
           "a service that is none has a binder");
    const sp<IUIManager> manager =
        IUIManager::asInterface(services->getService(IUIManager::kServiceName));
    if (manager == nullptr) {
        return "no user interface; the service does without";
    }
    const sp<AMessage> info = new AMessage(0, 0);
    for (const char* key : {"album", "artist", "trackName", "coverArt", "codec", "sampleRate",
                            "bitdepth", "channels"}) {
        info->setString(key, "T\xC3\xA4xt", 5);
    }
    for (const char* key :
         {"totalTime", "repeat", "shuffle", "next", "prev", "currentSource", "seek"}) {
        info->setInt32(key, 1);
    }
    for (int i = 0; i < 20; ++i) {
        watch.time("updatePlayBackInfo", kLimit, [&] { manager->updatePlayBackInfo(info); });
        watch.time("clearPlayBackInfo", kLimit,
                   [&] { manager->clearPlayBackInfo(new AMessage(0, 0)); });
    }
    expect(info->getStrongCount() <= 2, "messages are kept");
    return watch.longest();
}

}  // namespace

std::vector<Rule> source_rules() {
    return {
        {"source", check_source},
        {"display", check_display},
    };
}

}  // namespace nuvio::kit
