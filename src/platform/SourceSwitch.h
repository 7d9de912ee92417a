// Source switch: the platform service that decides which audio source owns the output.
#pragma once

#include <string>

#include "platform/Binder.h"

namespace android {

class ISourceSwitchListener : public virtual RefBase {
  public:
    // Another source has taken the output.
    virtual void OnSourceSwitchEvent() = 0;
    // A command for this source: one of the bridge's command words. The text is the caller's.
    virtual void OnSourceEvent(const char* command) = 0;
    // The device's volume control has moved: percent, decimal. The text is the caller's.
    virtual void OnVolumeChangeEvent(const char* volume) = 0;
};

// The receiving end: its notifications arrive on the threads of the binder pool.
class BnSourceSwitchListener : public ISourceSwitchListener, public IBinder {};

enum EPlayState : int { PLAY_STATE_PLAYING = 0, PLAY_STATE_STOPPED = 1, PLAY_STATE_PAUSED = 2 };

// This service's number among the device's sources.
constexpr int SOURCE_TYPE_NUVIO_CONNECT = 31;

// Calls to the service. Any thread; none waits for a notification to be handled.
class SourceSwitchClient {
  public:
    // Asks for the output; true when granted. The service keeps the listener, granted or not, until
    // DisconnectMySource.
    static bool PlayMySource(const sp<BnSourceSwitchListener>& listener, int sourceType);
    // The source's state, for the device's display; so is NotifyPlaybackStopped.
    static void UpdatePlayerState(const sp<BnSourceSwitchListener>& listener, EPlayState state);
    // Volume of the source, percent, decimal.
    static void UpdateAppVolume(const std::string& volume);
    static void NotifyPlaybackStopped(const sp<BnSourceSwitchListener>& listener);
    // Gives the output back and forgets the listener.
    static void DisconnectMySource(const sp<BnSourceSwitchListener>& listener);
};

}  // namespace android
