// The least that stands behind platform/*.h: a device of fixed settings with one source and a wired
// network, on which nobody presses a key.
//
// One thread tells the listeners, so no call waits for one of them.
#include <platform/Environment.h>
#include <platform/Kora.h>
#include <platform/Nesh.h>
#include <platform/SourceSwitch.h>
#include <platform/Thread.h>
#include <platform/UIManager.h>
#include <unistd.h>

#include <algorithm>
#include <condition_variable>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <deque>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace {

using android::sp;

struct Registration {
    sp<android::IKoraAlerts> listener;
    std::vector<int> ids;
    bool is_of(const sp<android::IKoraAlerts>& one, const android::Vector<int>& list) const {
        return listener == one && std::equal(ids.begin(), ids.end(), list.begin(), list.end());
    }
    bool wants(int id) const { return std::find(ids.begin(), ids.end(), id) != ids.end(); }
};

struct Device {
    std::mutex mutex;  // guards all below
    std::condition_variable posted;
    std::deque<std::pair<sp<android::IKoraAlerts>, int>> notifications;
    std::vector<Registration> registrations;
    std::vector<sp<android::INeshAlerts>> network_listeners;
    sp<android::BnSourceSwitchListener> source;
    std::map<int, std::string> messages{{50, "0"}, {51, "1"}, {63, "UNMUTE"}, {64, "50"}};
    bool stopped = false;
};

Device& device() {
    static auto* const kept = new Device();  // to the end of the process, as the service's are
    return *kept;
}

void tell_listeners() {
    std::unique_lock lock(device().mutex);
    while (true) {
        device().posted.wait(lock, [] { return !device().notifications.empty(); });
        const auto told = device().notifications.front();
        const sp<android::IKoraAlerts> listener = told.first;
        const int id = told.second;
        device().notifications.pop_front();
        const auto wants = [&](const Registration& one) {
            return one.listener == listener && one.wants(id);
        };
        // Nothing for a listener that has left meanwhile.
        if (!device().stopped && std::ranges::any_of(device().registrations, wants)) {
            lock.unlock();
            listener->MessageBoxAlert(static_cast<uint16_t>(id), 0);
            lock.lock();
        }
    }
}

class Display : public android::IUIManager, public android::IBinder {
  public:
    void updatePlayBackInfo(const sp<android::AMessage>& info) override {
        std::string title;
        info->findString("trackName", &title);
        std::fprintf(stderr, "display: %s\n", title.c_str());
    }
    void clearPlayBackInfo(const sp<android::AMessage>&) override {
        std::fputs("display:\n", stderr);
    }
};

class Registry : public android::IServiceManager {
  public:
    sp<android::IBinder> getService(const char* name) override {
        return std::strcmp(name, android::IUIManager::kServiceName) == 0 ? m_display : nullptr;
    }

  private:
    const sp<android::IBinder> m_display = new Display();
};

sigset_t end_signals() {
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGTERM);
    sigaddset(&signals, SIGINT);
    return signals;
}

class Pool : public android::ProcessState, public android::IPCThreadState {
  public:
    void startThreadPool() override {
        const sigset_t signals = end_signals();
        pthread_sigmask(SIG_BLOCK, &signals, nullptr);  // joinThreadPool takes them
        std::call_once(m_once, [] { std::thread(tell_listeners).detach(); });
    }
    void joinThreadPool(bool) override {
        const sigset_t signals = end_signals();
        sigwaitinfo(&signals, nullptr);
        const std::scoped_lock lock(device().mutex);
        device().stopped = true;
    }

  private:
    std::once_flag m_once;
};

const sp<Pool>& pool() {
    static auto* const kept = new sp<Pool>(new Pool());
    return *kept;
}

}  // namespace

void GetEnvItemByName(const char* key, std::string& value) {
    static const std::map<std::string, std::string> items = {
        {kFeatureNuvioConnect, "1"},
        {KFeatureNuvioConnectApp_id, "minimal"},
        {KFeatureNuvioConnectApp_secret, "minimal"}};
    const auto item = key == nullptr ? items.end() : items.find(key);
    value = item == items.end() ? "" : item->second;
}

void GetEnvItemByName(const char* key, char* value) {
    std::string text;
    GetEnvItemByName(key, text);
    value[text.copy(value, kEnvItemBufferSize - 1)] = '\0';
}

bool getFriendlyName(std::string& value) {
    value = "Minimal device";
    return true;
}
bool getManufacturer(std::string& value) {
    value.clear();
    return false;
}
bool getModel(std::string& value) {
    value.clear();
    return false;
}

namespace android {

const char* const IUIManager::kServiceName = "ui";

sp<IUIManager> IUIManager::asInterface(const sp<IBinder>& binder) {
    return dynamic_cast<IUIManager*>(binder.get());
}
sp<IServiceManager> defaultServiceManager() {
    static auto* const kept = new sp<IServiceManager>(new Registry());
    return *kept;
}
sp<ProcessState> ProcessState::self() {
    return pool();
}
IPCThreadState* IPCThreadState::self() {
    return pool().get();
}

struct KORAHelper::Impl {};
KORAHelper::KORAHelper() = default;
KORAHelper::~KORAHelper() = default;
bool KORAHelper::verifyConnection_l() {
    return true;
}
void KORAHelper::registerListener(const sp<IKoraAlerts>& listener, Vector<int>& ids) {
    const std::scoped_lock lock(device().mutex);
    device().registrations.push_back({listener, {ids.begin(), ids.end()}});
}
void KORAHelper::unregisterListener(const sp<IKoraAlerts>& listener, Vector<int>& ids) {
    const std::scoped_lock lock(device().mutex);
    std::erase_if(device().registrations,
                  [&](const auto& one) { return one.is_of(listener, ids); });
}
bool KORAHelper::readRemoteMessage(const int& id, std::string& text) {
    const std::scoped_lock lock(device().mutex);
    const auto message = device().messages.find(id);
    const bool known = message != device().messages.end();
    text = known ? message->second : "";
    return known;
}
bool KORAHelper::writeRemoteMessage(const int& id, const std::string& text, int) {
    const std::scoped_lock lock(device().mutex);
    if (std::exchange(device().messages[id], text) != text) {
        for (const Registration& one : device().registrations) {
            if (one.wants(id)) {
                device().notifications.emplace_back(one.listener, id);
            }
        }
        device().posted.notify_one();
    }
    return true;
}

struct NeshHelper::Impl {};
NeshHelper::NeshHelper() = default;
NeshHelper::~NeshHelper() = default;
bool NeshHelper::verifyConnection_l() {
    return true;
}
void NeshHelper::registerListener(const sp<INeshAlerts>& listener) {
    const std::scoped_lock lock(device().mutex);
    device().network_listeners.push_back(listener);
}
void NeshHelper::unregisterListener(const sp<INeshAlerts>& listener) {
    const std::scoped_lock lock(device().mutex);
    std::erase(device().network_listeners, listener);
}
void NeshHelper::getNetworkStatus(int iface, int* status) {
    *status = iface == 1 ? 1 : 0;
}

bool SourceSwitchClient::PlayMySource(const sp<BnSourceSwitchListener>& listener, int source) {
    const std::scoped_lock lock(device().mutex);
    device().source = listener;
    device().messages[50] = std::to_string(source);
    return true;
}
void SourceSwitchClient::UpdatePlayerState(const sp<BnSourceSwitchListener>&, EPlayState) {}
void SourceSwitchClient::UpdateAppVolume(const std::string& volume) {
    KORAHelper().writeRemoteMessage(KORA_VOLUME, volume, 0);
}
void SourceSwitchClient::NotifyPlaybackStopped(const sp<BnSourceSwitchListener>&) {}
void SourceSwitchClient::DisconnectMySource(const sp<BnSourceSwitchListener>&) {
    const std::scoped_lock lock(device().mutex);
    device().source.clear();
    device().messages[50] = "0";
}

struct Thread::State {
    std::mutex mutex;
    std::condition_variable ended;
    bool runs = false, started = false;
};
Thread::Thread(bool) : m_state(std::make_unique<State>()) {}
Thread::~Thread() = default;
int32_t Thread::run(const char*, int32_t, size_t) {
    const std::scoped_lock lock(m_state->mutex);
    if (std::exchange(m_state->started, true)) {
        return -EALREADY;
    }
    m_state->runs = true;
    std::thread([self = sp<Thread>(this)] {
        while (self->threadLoop()) {
        }
        const std::scoped_lock end(self->m_state->mutex);
        self->m_state->runs = false;
        self->m_state->ended.notify_all();
    }).detach();
    return 0;
}
void Thread::join() {
    std::unique_lock lock(m_state->mutex);
    m_state->ended.wait(lock, [this] { return !m_state->runs; });
}

}  // namespace android
