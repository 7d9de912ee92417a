// The clients of the message service, the network status and the source switch: thin, since the
// services live in the same process and always answer.
#include "base/text.h"
#include "host.h"
#include "platform/Kora.h"
#include "platform/Nesh.h"
#include "platform/SourceSwitch.h"

namespace android {

using nuvio::host::Host;

struct KORAHelper::Impl {};

KORAHelper::KORAHelper() = default;
KORAHelper::~KORAHelper() = default;

bool KORAHelper::verifyConnection_l() {
    return true;
}

void KORAHelper::registerListener(const sp<IKoraAlerts>& listener, Vector<int>& ids) {
    Host::instance().messages().add_listener(listener, {ids.begin(), ids.end()});
}

void KORAHelper::unregisterListener(const sp<IKoraAlerts>& listener, Vector<int>& ids) {
    Host::instance().messages().remove_listener(listener, {ids.begin(), ids.end()});
}

bool KORAHelper::readRemoteMessage(const int& id, std::string& text) {
    return Host::instance().messages().read(id, text);
}

bool KORAHelper::writeRemoteMessage(const int& id, const std::string& text, int) {
    Host& host = Host::instance();
    // Without the output the service reports how it found the mixer; what the device has kept
    // counts.
    if (id == KORA_MUTE && !host.source_switch().has_output()) {
        return true;
    }
    return host.messages().write(id, text);
}

struct NeshHelper::Impl {};

NeshHelper::NeshHelper() = default;
NeshHelper::~NeshHelper() = default;

bool NeshHelper::verifyConnection_l() {
    return true;
}

void NeshHelper::registerListener(const sp<INeshAlerts>& listener) {
    Host::instance().network().add_listener(listener);
}

void NeshHelper::unregisterListener(const sp<INeshAlerts>& listener) {
    Host::instance().network().remove_listener(listener);
}

void NeshHelper::getNetworkStatus(int iface, int* status) {
    *status = Host::instance().network().is_usable(iface) ? 1 : 0;
}

bool SourceSwitchClient::PlayMySource(const sp<BnSourceSwitchListener>& listener, int source_type) {
    return Host::instance().source_switch().request(listener, source_type);
}

void SourceSwitchClient::UpdatePlayerState(const sp<BnSourceSwitchListener>&, EPlayState state) {
    Host::instance().now_playing().set_status(state);
}

// The device's volume is that of its one source.
void SourceSwitchClient::UpdateAppVolume(const std::string& volume) {
    if (nuvio::host::to_percent(volume)) {
        Host::instance().messages().write(KORA_VOLUME, volume);
    }
}

void SourceSwitchClient::NotifyPlaybackStopped(const sp<BnSourceSwitchListener>&) {
    Host::instance().now_playing().set_status(PLAY_STATE_STOPPED);
}

void SourceSwitchClient::DisconnectMySource(const sp<BnSourceSwitchListener>& listener) {
    Host::instance().source_switch().release(listener);
}

}  // namespace android
