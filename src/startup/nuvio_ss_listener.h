// This service's side of the source switch: takes and gives back the audio output, turns the
// platform's notifications into the bridge's commands, and reports playback to the platform.
#pragma once

#include <cstdint>

#include "bridge/track_info.h"
#include "platform/SourceSwitch.h"

namespace android {

// One per process. It never calls the SDK and never waits for the loop.
//
// Creation    getInstance, by the bridge's construction, before any other thread can use it.
// Destruction releaseInstance, at the end of the process, when no notification arrives any more.
// Threads     setSource and reportPlaybackPosition: loop thread. DropSource, the other reports and
//             UpdateUIPlayBackInfo: command thread. The On... notifications: binder threads.
// Errors      a message that can't be read counts as empty; a service that is not there is skipped.
class NuvioSSListener : public BnSourceSwitchListener {
  public:
    static sp<NuvioSSListener> getInstance();
    // Gives the output back and lets go of the instance. Nothing happens without one.
    static void releaseInstance();

    // Another source has taken the output: posts "ONSOURCESWITCH" and reports the stop.
    void OnSourceSwitchEvent() override;
    // Posts the text, a command word of the bridge, as it is. Null is ignored.
    void OnSourceEvent(const char* command) override;
    // Percent, decimal: posts "VOLUME:" and the text. Null is ignored.
    void OnVolumeChangeEvent(const char* volume) override;

    // Asks for the output; true when granted, and the device's volume and mute state are then
    // posted to the bridge.
    static bool setSource();
    // Reports the stop and gives the output back.
    void DropSource();

    // state: nuv_playback_state; any other value is not passed on.
    void reportPlayState(int32_t state);
    void reportPlaybackPosition(uint64_t positionMs);
    // 0: not muted.
    void reportMuteState(int32_t muted);
    // Percent. Only while the platform names a current source.
    void reportVolume(int32_t volume);
    // Shows the track on the device's display.
    void UpdateUIPlayBackInfo(const TrackInfo& track);

  private:
    NuvioSSListener() = default;
};

}  // namespace android
