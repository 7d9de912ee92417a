// A stand-in for the service, run by the host's system tests: writes a line for each thing that it
// is told, and does what the lines on its input say. Ends like the service, on SIGTERM.
//
//   source            asks for the output          -> "granted" or "refused"
//   drop              gives it back
//   state N           0 playing, 1 stopped, 2 paused
//   position MS | volume N
//   track TITLE|ARTIST|ALBUM|MS|ART|SHUFFLE|REPEAT
//   clear
//   read ID           -> "ID=text"
//   network N         -> "network N S"
#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <sstream>
#include <string>
#include <thread>

#include "platform/Environment.h"
#include "platform/Kora.h"
#include "platform/Nesh.h"
#include "platform/SourceSwitch.h"
#include "platform/UIManager.h"

using namespace android;

namespace {

void say(const std::string& line) {
    // One write a line, so that two threads' lines do not mix.
    const std::string text = line + "\n";
    std::fwrite(text.data(), 1, text.size(), stdout);
    std::fflush(stdout);
}

class Listener : public BnSourceSwitchListener {
  public:
    void OnSourceSwitchEvent() override { say("switch"); }
    void OnSourceEvent(const char* command) override { say(std::string("event ") + command); }
    void OnVolumeChangeEvent(const char* volume) override { say(std::string("volume ") + volume); }
};

class Alerts : public IKoraAlerts, public INeshAlerts {
  public:
    void MessageBoxAlert(uint16_t id, uint16_t) override { say("alert " + std::to_string(id)); }
    void MessageBoxAlert(uint16_t, uint16_t, uint32_t) override {}
    void NeshAlert(uint8_t iface, uint8_t status) override {
        say("net " + std::to_string(iface) + " " + std::to_string(status));
    }
};

// 0 where there is none.
int number_in(const std::string& text) {
    return static_cast<int>(std::strtol(text.c_str(), nullptr, 10));
}

sp<AMessage> track_message(const std::string& text) {
    std::istringstream parts(text);
    sp<AMessage> info = new AMessage(0, 0);
    const auto next = [&parts] {
        std::string part;
        std::getline(parts, part, '|');
        return part;
    };
    const auto set = [&](const char* key, const std::string& value) {
        info->setString(key, value.data(), value.size());
    };
    set("trackName", next());
    set("artist", next());
    set("album", next());
    info->setInt32("totalTime", number_in(next()));
    const std::string art = next();
    set("coverArt", art.empty() ? "defaultArt.jpg" : art);
    for (const char* key : {"shuffle", "repeat"}) {
        info->setInt32(key, number_in(next()));
    }
    for (const char* key : {"next", "prev", "seek"}) {
        info->setInt32(key, 1);
    }
    return info;
}

void obey(const std::string& verb, const std::string& argument) {
    static const sp<BnSourceSwitchListener> listener = new Listener();
    static KORAHelper kora;
    static NeshHelper nesh;
    const sp<IUIManager> ui =
        IUIManager::asInterface(defaultServiceManager()->getService(IUIManager::kServiceName));
    const int number = number_in(argument);
    if (verb == "source") {
        say(SourceSwitchClient::PlayMySource(listener, SOURCE_TYPE_NUVIO_CONNECT) ? "granted"
                                                                                  : "refused");
    } else if (verb == "drop") {
        SourceSwitchClient::DisconnectMySource(listener);
    } else if (verb == "state") {
        SourceSwitchClient::UpdatePlayerState(listener, static_cast<EPlayState>(number));
    } else if (verb == "position") {
        kora.writeRemoteMessage(KORA_PLAYBACK_POSITION, argument, 0);
    } else if (verb == "volume") {
        SourceSwitchClient::UpdateAppVolume(argument);
    } else if (verb == "track") {
        ui->updatePlayBackInfo(track_message(argument));
    } else if (verb == "clear") {
        ui->clearPlayBackInfo(new AMessage(0, 0));
    } else if (verb == "read") {
        std::string text;
        kora.readRemoteMessage(number, text);
        say(argument + "=" + text);
    } else if (verb == "network") {
        int status = 0;
        nesh.getNetworkStatus(number, &status);
        say("network " + argument + " " + std::to_string(status));
    } else {
        say("what? " + verb);
    }
}

void take_orders() {
    for (std::string line; std::getline(std::cin, line);) {
        const size_t blank = line.find(' ');
        obey(line.substr(0, blank), blank == std::string::npos ? "" : line.substr(blank + 1));
    }
}

}  // namespace

int main() {
    std::string value;
    GetEnvItemByName(kFeatureNuvioConnect, value);
    KORAHelper kora;
    NeshHelper nesh;
    const sp<Alerts> alerts = new Alerts();
    Vector<int> ids;
    for (const int id : {90, 37, 115, 64, 63, 51}) {
        ids.add(id);
    }
    nesh.registerListener(alerts);
    kora.registerListener(alerts, ids);
    ProcessState::self()->startThreadPool();
    std::thread orders(take_orders);
    say("ready " + value);
    IPCThreadState::self()->joinThreadPool(true);
    say("ended");
    nesh.unregisterListener(alerts);
    kora.unregisterListener(alerts, ids);
    // The reader of the orders waits for its input to be closed.
    orders.join();
    return 0;
}
