#include "fakes/fake_platform.h"

#include <atomic>

#include "fakes/echo.h"
#include "platform/Binder.h"
#include "platform/Environment.h"
#include "platform/UIManager.h"

using namespace android;

namespace fake_platform {
namespace {

std::mutex g_mutex;
State g_state;
std::atomic<bool> g_ending{false};

void take_time() {
    if (const auto work = state()->in_each_call) {
        work();
    }
}

void record(const std::string& call) {
    fakes::echo("-> platform", call);
    state()->calls.push_back(call);
    take_time();
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
    sp<IBinder> getService(const char*) override {
        return state()->has_ui ? sp<IBinder>(new Ui) : nullptr;
    }
};

class Process : public ProcessState {
  public:
    void startThreadPool() override {}
};

class Pool final : public IPCThreadState {
  public:
    void joinThreadPool(bool) override { g_ending.wait(false); }
};

}  // namespace

State::State()
    : items{{kFeatureNuvioConnect, "1"},
            {KFeatureNuvioConnectApp_id, "id"},
            {KFeatureNuvioConnectApp_secret, "secret"}} {}

Locked state() {
    return {std::unique_lock(g_mutex), &g_state};
}

void reset() {
    State fresh;
    std::swap(*state().state, fresh);
    g_ending = false;
}

void notify_message(int id) {
    sp<IKoraAlerts> listener;
    if (const Locked platform = state(); std::ranges::count(platform->kora_ids, id) > 0) {
        listener = platform->kora;
    }
    if (listener != nullptr) {
        listener->MessageBoxAlert(static_cast<uint16_t>(id), 0);
    }
}

void notify_network(int iface, int status) {
    const sp<INeshAlerts> listener = state()->nesh;
    if (listener != nullptr) {
        listener->NeshAlert(static_cast<uint8_t>(iface), static_cast<uint8_t>(status));
    }
}

void end_process() {
    g_ending = true;
    g_ending.notify_all();
}

}  // namespace fake_platform

using namespace fake_platform;

void GetEnvItemByName(const char* key, std::string& value) {
    value = state()->items[key];
}
void GetEnvItemByName(const char* key, char* value) {
    const std::string text = state()->items[key];
    value[text.copy(value, kEnvItemBufferSize - 1)] = '\0';
}
bool getFriendlyName(std::string& value) {
    return answer(state()->friendly_name, value);
}
bool getManufacturer(std::string& value) {
    return answer(state()->manufacturer, value);
}
bool getModel(std::string& value) {
    return answer(state()->model, value);
}

namespace android {

struct KORAHelper::Impl {};
KORAHelper::KORAHelper() = default;
KORAHelper::~KORAHelper() = default;
bool KORAHelper::verifyConnection_l() {
    return state()->unreachable_kora-- <= 0;
}
void KORAHelper::registerListener(const sp<IKoraAlerts>& listener, Vector<int>& ids) {
    const Locked platform = state();
    platform->kora = listener;
    platform->kora_ids.assign(ids.begin(), ids.end());
}
void KORAHelper::unregisterListener(const sp<IKoraAlerts>&, Vector<int>& ids) {
    const Locked platform = state();
    for (const int id : ids) {
        std::erase(platform->kora_ids, id);
    }
    platform->kora.clear();
}
bool KORAHelper::readRemoteMessage(const int& id, std::string& text) {
    take_time();
    const Locked platform = state();
    text = platform->loses_messages ? "" : platform->messages[id];
    return !text.empty();
}
bool KORAHelper::writeRemoteMessage(const int& id, const std::string& text, int) {
    record("write " + std::to_string(id) + " " + text);
    return !state()->loses_messages;
}

struct NeshHelper::Impl {};
NeshHelper::NeshHelper() = default;
NeshHelper::~NeshHelper() = default;
bool NeshHelper::verifyConnection_l() {
    return state()->unreachable_nesh-- <= 0;
}
void NeshHelper::registerListener(const sp<INeshAlerts>& listener) {
    state()->nesh = listener;
}
void NeshHelper::unregisterListener(const sp<INeshAlerts>&) {
    state()->nesh.clear();
}
void NeshHelper::getNetworkStatus(int iface, int* status) {
    record("network_status " + std::to_string(iface));
    *status = iface == 1 && state()->wired ? 1 : 0;
}

bool SourceSwitchClient::PlayMySource(const sp<BnSourceSwitchListener>&, int sourceType) {
    record("play_my_source " + std::to_string(sourceType));
    if (const auto wait = state()->when_asked_for_output) {
        wait();
    }
    return state()->grants_output;
}
void SourceSwitchClient::UpdatePlayerState(const sp<BnSourceSwitchListener>&, EPlayState playing) {
    record("player_state " + std::to_string(playing));
}
void SourceSwitchClient::UpdateAppVolume(const std::string& volume) {
    record("app_volume " + volume);
}
void SourceSwitchClient::NotifyPlaybackStopped(const sp<BnSourceSwitchListener>&) {
    record("playback_stopped");
}
void SourceSwitchClient::DisconnectMySource(const sp<BnSourceSwitchListener>&) {
    record("disconnect_source");
}

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
