#include "bridge/ui_manager.h"

#include <syslog.h>

namespace android {

sp<IUIManager> getUIManager() {
    syslog(LOG_ERR, "NuvioConnect: sp<IKoraTransport> getInstance()");
    return IUIManager::asInterface(defaultServiceManager()->getService(IUIManager::kServiceName));
}

}  // namespace android
