#include "fakes/fake_platform.h"

#include <algorithm>
#include <condition_variable>
#include <mutex>
#include <utility>

#include "platform/Binder.h"
#include "platform/Environment.h"
#include "platform/Kora.h"
#include "platform/Nesh.h"
#include "platform/UIManager.h"

using namespace android;

namespace fake_platform {
namespace {

struct State {
    Device device = usual_device();
    std::vector<std::string> calls;
    sp<IKoraAlerts> kora;
    std::vector<int> kora_ids;
    sp<INeshAlerts> nesh;
    sp<BnSourceSwitchListener> source;
    bool ending = false;
};

std::mutex g_mutex;
std::condition_variable g_changed;
State g_state;

void record(const std::string& call) {
    const std::scoped_lock lock(g_mutex);
    g_state.calls.push_back(call);
}

Device device() {
    const std::scoped_lock lock(g_mutex);
    return g_state.device;
}

bool answer(const Identity& identity, std::string& value) {
    value = identity.text;
    return identity.known;
}

class Ui : public IUIManager, public IBinder {
  public:
    void updatePlayBackInfo(const sp<AMessage>& info) override {
        std::string line = "ui_update";
        for (const auto& [key, value] : info->entries()) {
            const auto* number = std::get_if<int32_t>(&value);
            line += " " + key + "=";
            line += number != nullptr ? std::to_string(*number) : std::get<std::string>(value);
        }
        record(line);
    }
    void clearPlayBackInfo(const sp<AMessage>&) override { record("ui_clear"); }
};

class Services : public IServiceManager {
  public:
    sp<IBinder> getService(const char* name) override {
        const bool found = std::string(name) == IUIManager::kServiceName && device().has_ui;
        return found ? sp<IBinder>(new Ui) : nullptr;
    }
};

class Process : public ProcessState {
  public:
    void startThreadPool() override { record("start_thread_pool"); }
};

class Pool final : public IPCThreadState {
  public:
    void joinThreadPool(bool) override {
        std::unique_lock lock(g_mutex);
        g_changed.wait(lock, [] { return g_state.ending; });
    }
};

}  // namespace

Device usual_device() {
    Device usual;
    usual.items = {{kFeatureNuvioConnect, "1"},
                   {KFeatureNuvioConnectApp_id, "id"},
                   {KFeatureNuvioConnectApp_secret, "secret"}};
    usual.wired = true;
    return usual;
}

void reset() {
    State fresh;
    const std::scoped_lock lock(g_mutex);
    std::swap(g_state, fresh);
}

void set(const Device& device) {
    const std::scoped_lock lock(g_mutex);
    g_state.device = device;
}

std::vector<std::string> calls() {
    const std::scoped_lock lock(g_mutex);
    return g_state.calls;
}

std::vector<std::string> take_calls() {
    const std::scoped_lock lock(g_mutex);
    return std::exchange(g_state.calls, {});
}

size_t count(const std::string& prefix) {
    const std::scoped_lock lock(g_mutex);
    return static_cast<size_t>(std::ranges::count_if(
        g_state.calls, [&prefix](const std::string& call) { return call.starts_with(prefix); }));
}

void set_message(int id, const std::string& text) {
    const std::scoped_lock lock(g_mutex);
    g_state.device.messages[id] = text;
}

void notify_message(int id) {
    sp<IKoraAlerts> listener;
    {
        const std::scoped_lock lock(g_mutex);
        if (std::ranges::count(g_state.kora_ids, id) > 0) {
            listener = g_state.kora;
        }
    }
    if (listener != nullptr) {
        listener->MessageBoxAlert(static_cast<uint16_t>(id), 0);
    }
}

void notify_network(int iface, int status) {
    sp<INeshAlerts> listener;
    {
        const std::scoped_lock lock(g_mutex);
        listener = g_state.nesh;
    }
    if (listener != nullptr) {
        listener->NeshAlert(static_cast<uint8_t>(iface), static_cast<uint8_t>(status));
    }
}

sp<BnSourceSwitchListener> source_listener() {
    const std::scoped_lock lock(g_mutex);
    return g_state.source;
}

std::vector<int> watched_messages() {
    const std::scoped_lock lock(g_mutex);
    return g_state.kora_ids;
}

bool network_watched() {
    const std::scoped_lock lock(g_mutex);
    return g_state.nesh != nullptr;
}

void end_process() {
    const std::scoped_lock lock(g_mutex);
    g_state.ending = true;
    g_changed.notify_all();
}

}  // namespace fake_platform

using namespace fake_platform;

// ---- Configuration and identity
// ------------------------------------------------------------------

void GetEnvItemByName(const char* key, std::string& value) {
    value = device().items[key];
}
bool getFriendlyName(std::string& value) {
    return answer(device().friendly_name, value);
}
bool getManufacturer(std::string& value) {
    return answer(device().manufacturer, value);
}
bool getModel(std::string& value) {
    return answer(device().model, value);
}

namespace android {

// ---- Messages
// ------------------------------------------------------------------------------------

struct KORAHelper::Impl {};
KORAHelper::KORAHelper() = default;
KORAHelper::~KORAHelper() = default;
bool KORAHelper::verifyConnection_l() {
    return true;
}

void KORAHelper::registerListener(const sp<IKoraAlerts>& listener, Vector<int>& ids) {
    const std::scoped_lock lock(g_mutex);
    g_state.kora = listener;
    g_state.kora_ids.assign(ids.begin(), ids.end());
}

void KORAHelper::unregisterListener(const sp<IKoraAlerts>&, Vector<int>& ids) {
    const std::scoped_lock lock(g_mutex);
    std::erase_if(g_state.kora_ids,
                  [&ids](int id) { return std::find(ids.begin(), ids.end(), id) != ids.end(); });
    g_state.kora.clear();
}

bool KORAHelper::readRemoteMessage(const int& id, std::string& text) {
    text = device().messages[id];
    return !text.empty();
}

bool KORAHelper::writeRemoteMessage(const int& id, const std::string& text, int) {
    record("write " + std::to_string(id) + " " + text);
    return true;
}

// ---- Network
// -------------------------------------------------------------------------------------

struct NeshHelper::Impl {};
NeshHelper::NeshHelper() = default;
NeshHelper::~NeshHelper() = default;

bool NeshHelper::verifyConnection_l() {
    const std::scoped_lock lock(g_mutex);
    return g_state.device.unreachable_nesh-- <= 0;
}

void NeshHelper::registerListener(const sp<INeshAlerts>& listener) {
    const std::scoped_lock lock(g_mutex);
    g_state.nesh = listener;
}

void NeshHelper::unregisterListener(const sp<INeshAlerts>&) {
    const std::scoped_lock lock(g_mutex);
    g_state.nesh.clear();
}

void NeshHelper::getNetworkStatus(int iface, int* status) {
    record("network_status " + std::to_string(iface));
    *status = static_cast<int>(iface == 1 ? device().wired : device().wireless);
}

// ---- Source switch
// -------------------------------------------------------------------------------

bool SourceSwitchClient::PlayMySource(const sp<BnSourceSwitchListener>& listener, int sourceType) {
    record("play_my_source " + std::to_string(sourceType));
    const std::scoped_lock lock(g_mutex);
    g_state.source = listener;
    return g_state.device.grants_output;
}

void SourceSwitchClient::UpdatePlayerState(const sp<BnSourceSwitchListener>&, EPlayState state) {
    record("player_state " + std::to_string(state));
}

void SourceSwitchClient::UpdateAppVolume(const std::string& volume) {
    record("app_volume " + volume);
}

void SourceSwitchClient::NotifyPlaybackStopped(const sp<BnSourceSwitchListener>&) {
    record("playback_stopped");
}

void SourceSwitchClient::DisconnectMySource(const sp<BnSourceSwitchListener>&) {
    record("disconnect_source");
    const std::scoped_lock lock(g_mutex);
    g_state.source.clear();
}

// ---- Binder, user interface
// ----------------------------------------------------------------------

const char* const IUIManager::kServiceName = "ui";

sp<IUIManager> IUIManager::asInterface(const sp<IBinder>& binder) {
    return dynamic_cast<IUIManager*>(binder.get());
}

sp<IServiceManager> defaultServiceManager() {
    return new Services;
}

sp<ProcessState> ProcessState::self() {
    return new Process;
}

IPCThreadState* IPCThreadState::self() {
    static Pool pool;
    return &pool;
}

}  // namespace android
