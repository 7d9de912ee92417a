#include "startup/nuvio_connect_start.h"

#include <syslog.h>

#include <array>
#include <chrono>
#include <csignal>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "bridge/bridge.h"
#include "startup/device_settings.h"
#include "startup/network_state.h"

namespace android {
namespace {

using namespace std::chrono_literals;

constexpr std::array kWatchedMessages = {
    KORA_DEVICE_NAME, KORA_SHUTDOWN_REQUEST, KORA_SHUTDOWN_REQUEST_SYSTEM, KORA_VOLUME,
    KORA_MUTE,        KORA_PLAY_STATE};

constexpr int kWired = 1;
constexpr int kWireless = 2;

NuvioConnectStart* g_instance = nullptr;  // main thread only

// The signals that end the process wait for the thread pool, which is not there yet.
void endIfAskedTo() {
    sigset_t pending;
    sigpending(&pending);
    if (sigismember(&pending, SIGTERM) == 1 || sigismember(&pending, SIGINT) == 1) {
        pthread_sigmask(SIG_UNBLOCK, &pending, nullptr);
    }
}

template <typename Helper>
std::unique_ptr<Helper> connectHelper(std::chrono::milliseconds retryDelay) {
    auto helper = std::make_unique<Helper>();
    while (!helper->verifyConnection_l()) {
        std::this_thread::sleep_for(retryDelay);
        endIfAskedTo();
    }
    return helper;
}

}  // namespace

NuvioConnectStart* NuvioConnectStart::GetInstance() {
    syslog(LOG_INFO, "NuvioKora: Nuvio : %s\n", __func__);
    if (g_instance == nullptr) {
        syslog(LOG_INFO, "NuvioKora: %s", __func__);
        g_instance = new NuvioConnectStart;
    }
    return g_instance;
}

void NuvioConnectStart::ReleaseInstance() {
    NuvioConnectStart* const self = std::exchange(g_instance, nullptr);
    if (self == nullptr) {
        return;
    }
    self->m_kora->unregisterListener(sp<IKoraAlerts>(self), self->m_koraIds);
    self->m_nesh->unregisterListener(sp<INeshAlerts>(self));
    self->decStrong();
}

NuvioConnectStart::NuvioConnectStart() : Thread(false) {
    // The singleton's own reference: registering passes strong pointers to an object under
    // construction, and dropping the last of them would delete it.
    incStrong();
    initKORA();
}

NuvioConnectStart::~NuvioConnectStart() = default;

void NuvioConnectStart::initKORA() {
    syslog(LOG_INFO, "NuvioKora: NUVIO_CONNECT : %s\n", __func__);
    m_kora = connectHelper<KORAHelper>(3s);
    m_nesh = connectHelper<NeshHelper>(50ms);
    m_nesh->registerListener(sp<INeshAlerts>(this));
    for (const KoraMessage id : kWatchedMessages) {
        m_koraIds.add(id);
    }
    m_kora->registerListener(sp<IKoraAlerts>(this), m_koraIds);
}

// ---- The start-up pass

bool NuvioConnectStart::threadLoop() {
    NetworkState& network = NetworkState::get();
    syslog(LOG_INFO, "NuvioKora: ************** threadloop start*************/n");
    std::unique_lock lock(network.mutex);
    waitForNetwork(lock);
    if (network.stopping) {
        return false;
    }
    syslog(LOG_INFO, "NuvioKora: NUVIO_CONNECT : %s\n", __func__);
    const std::optional<std::vector<std::string>> info = gatherDeviceInfo(*m_kora);
    if (info) {
        setDeviceInfo(*info);
        startNuvioConnectThread();
    }
    return false;
}

// Called with the lock held; held again on return.
void NuvioConnectStart::waitForNetwork(std::unique_lock<std::mutex>& lock) {
    NetworkState& network = NetworkState::get();
    int wired = 0;
    int wireless = 0;
    m_nesh->getNetworkStatus(kWired, &wired);
    m_nesh->getNetworkStatus(kWireless, &wireless);
    network.connected = wired != 0 || wireless != 0;
    if (network.connected) {
        syslog(LOG_ERR, "NuvioKora: Start Nuvio_Connect process \n");
        return;
    }
    network.changed.wait(lock, [&network] { return network.connected || network.stopping; });
    if (network.connected) {
        syslog(LOG_INFO, "NuvioKora: NetWork Configuration is Successful \n");
    }
}

void NuvioConnectStart::stopStartUp() {
    NetworkState& network = NetworkState::get();
    {
        const std::scoped_lock lock(network.mutex);
        network.stopping = true;
    }
    network.changed.notify_all();
    join();
}

// ---- Notifications

void NuvioConnectStart::MessageBoxAlert(uint16_t id, uint16_t) {
    syslog(LOG_INFO, "NuvioKora: Nuvio_Connect : %s\n", __func__);
    if (id == KORA_SHUTDOWN_REQUEST || id == KORA_SHUTDOWN_REQUEST_SYSTEM) {
        syslog(LOG_ERR, "NuvioKora: Nuvio_Connect GRACEFULL SHUTDOWN REQUEST.\n");
        postEventTo_Nuvio("DISCONNECTSOURCE");
    }
    syslog(LOG_INFO, "NuvioKora: %s: MID %d", __func__, id);
    if (id == KORA_DEVICE_NAME) {
        handleDeviceName();
    }
}

void NuvioConnectStart::MessageBoxAlert(uint16_t, uint16_t, uint32_t) {}

void NuvioConnectStart::handleDeviceName() {
    std::string name;
    m_kora->readRemoteMessage(KORA_DEVICE_NAME, name);
    NetworkState& network = NetworkState::get();
    const std::scoped_lock lock(network.mutex);
    if (name == network.lastDeviceName) {
        return;
    }
    if (network.connected) {
        postEventTo_Nuvio("DEVICENAME:" + name);
    }
    network.lastDeviceName = std::move(name);
}

void NuvioConnectStart::NeshAlert(uint8_t iface, uint8_t status) {
    syslog(LOG_INFO, "NuvioKora: Nuvio_Connect NeshAlert iface = %d , Status = %d \n", iface,
           status);
    const bool watched = iface == kWired || iface == kWireless;
    NetworkState& network = NetworkState::get();
    if (watched && status == 1) {
        const std::scoped_lock lock(network.mutex);
        network.connected = true;
        network.changed.notify_one();
    } else if (watched && status == 0) {
        const std::scoped_lock lock(network.mutex);
        network.connected = false;
        syslog(LOG_ERR, "NuvioKora:  Not in Active Interface to Internet Upgrade");
    }
    syslog(LOG_INFO, "NuvioKora: ::NeshAlert Finish");
}

}  // namespace android
