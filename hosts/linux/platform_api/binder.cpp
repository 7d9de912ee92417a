// The service registry, which holds the user-interface manager, and the thread pool.
#include "platform/Binder.h"

#include <string_view>

#include "host.h"
#include "platform/UIManager.h"

namespace android {

using nuvio::host::Host;

namespace {

// The device's display is what desktops show of a player.
class UIManager : public IUIManager, public IBinder {
  public:
    void updatePlayBackInfo(const sp<AMessage>& info) override {
        if (info != nullptr) {
            Host::instance().now_playing().show(*info);
        }
    }
    void clearPlayBackInfo(const sp<AMessage>&) override { Host::instance().now_playing().clear(); }
};

class ServiceManager : public IServiceManager {
  public:
    sp<IBinder> getService(const char* name) override {
        return name != nullptr && std::string_view(name) == IUIManager::kServiceName ? m_ui_manager
                                                                                     : nullptr;
    }

  private:
    const sp<IBinder> m_ui_manager = new UIManager();
};

class Pool : public ProcessState, public IPCThreadState {
  public:
    void startThreadPool() override { Host::instance().start(); }
    void joinThreadPool(bool) override { Host::instance().wait_for_end(); }
};

// Like the host itself these stay until the process has ended.
const sp<Pool>& pool() {
    static const auto* const kept = new sp<Pool>(new Pool());
    return *kept;
}

}  // namespace

const char* const IUIManager::kServiceName = "nuvio.ui_manager";

sp<IUIManager> IUIManager::asInterface(const sp<IBinder>& binder) {
    return dynamic_cast<IUIManager*>(binder.get());
}

sp<IServiceManager> defaultServiceManager() {
    static const auto* const kept = new sp<ServiceManager>(new ServiceManager());
    return *kept;
}

sp<ProcessState> ProcessState::self() {
    return pool();
}

IPCThreadState* IPCThreadState::self() {
    return pool().get();
}

}  // namespace android
