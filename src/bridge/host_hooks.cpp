#include "bridge/host_hooks.h"

#include "bridge/bridge.h"
#include "bridge/bridge_private.h"

using namespace android;

bool host_allow_source() {
    return bridgeInstance() != nullptr && NuvioSSListener::setSource();
}

void host_report_playback_position(uint64_t position_ms) {
    if (NuvioConnect* const bridge = bridgeInstance()) {
        bridge->reportPlaybackPosition(position_ms);
    }
}

void host_report_mute_state() {
    if (bridgeInstance() != nullptr) {
        postEventTo_Nuvio("MUTE_STATE");
    }
}

void host_report_volume() {
    if (NuvioConnect* const bridge = bridgeInstance()) {
        bridge->postVolumeStatus();
    }
}

void host_report_shuffle_repeat() {
    if (bridgeInstance() != nullptr) {
        postEventTo_Nuvio("SHUFFLE_REPEAT");
    }
}

void host_report_playback_status(int status) {
    if (NuvioConnect* const bridge = bridgeInstance()) {
        bridge->postPlaybackStatus(status);
    }
}
