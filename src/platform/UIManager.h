// UI manager: shows what plays on the device's own display.
#pragma once

#include "platform/AMessage.h"
#include "platform/Binder.h"

namespace android {

class IUIManager : public virtual RefBase {
  public:
    // Name in the service registry.
    static const char* const kServiceName;
    // The interface behind a binder; null for null or for another service's binder.
    static sp<IUIManager> asInterface(const sp<IBinder>& binder);

    // Shows the track in the message. Any thread; returns without waiting for the display.
    virtual void updatePlayBackInfo(const sp<AMessage>& info) = 0;
    // Empties the display, whatever the message holds.
    virtual void clearPlayBackInfo(const sp<AMessage>& info) = 0;
};

}  // namespace android
