// KORA: the platform's numbered messages, each a text under a 16-bit id.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "platform/RefBase.h"
#include "platform/Vector.h"

namespace android {

// Message ids, fixed by the platform.
enum KoraMessage : int {
    KORA_SHUTDOWN_REQUEST = 37,         // notified
    KORA_PLAYBACK_POSITION = 49,        // written: ms, decimal
    KORA_CURRENT_SOURCE = 50,           // read: number of the current source, 0 for none
    KORA_PLAY_STATE = 51,               // written, notified: "0" playing, "1" stopped, "2" paused
    KORA_MUTE = 63,                     // read, written, notified: "MUTE" or "UNMUTE"
    KORA_VOLUME = 64,                   // read, notified: percent, decimal
    KORA_DEVICE_NAME = 90,              // read, notified
    KORA_SHUTDOWN_REQUEST_SYSTEM = 115  // notified
};

class IKoraAlerts : public virtual RefBase {
  public:
    // The message with this id has changed; read its value with readRemoteMessage. Arrives on a
    // platform thread, two at a time possible. May call any KORAHelper.
    virtual void MessageBoxAlert(uint16_t id, uint16_t value) = 0;
    // The same with a 32-bit value, for messages this service does not register for.
    virtual void MessageBoxAlert(uint16_t id, uint16_t value, uint32_t data) = 0;
};

// A connection to the message service. Every call may come from any thread.
class KORAHelper {
  public:
    KORAHelper();
    ~KORAHelper();
    KORAHelper(const KORAHelper&) = delete;
    KORAHelper& operator=(const KORAHelper&) = delete;

    // True when the service is reachable.
    bool verifyConnection_l();
    // Notifications for the ids in the list, from now until unregisterListener with the same list;
    // so long the service keeps the listener.
    void registerListener(const sp<IKoraAlerts>& listener, Vector<int>& ids);
    void unregisterListener(const sp<IKoraAlerts>& listener, Vector<int>& ids);
    // Fills `text` with the message's current value. False, and `text` empty, when it cannot be
    // read.
    bool readRemoteMessage(const int& id, std::string& text);
    // Replaces the message's value; flags is 0. False when the service cannot be reached.
    bool writeRemoteMessage(const int& id, const std::string& text, int flags);

  private:
    struct Impl;
    std::unique_ptr<Impl> m_impl;
};

}  // namespace android
