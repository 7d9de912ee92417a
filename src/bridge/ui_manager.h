// Look-up of the platform's user-interface manager.
#pragma once

#include "platform/UIManager.h"

namespace android {

// Null while the service is not registered. Looked up anew at each call, so that a restarted
// service is found. Any thread.
sp<IUIManager> getUIManager();

}  // namespace android
