// The start-up object: waits for the network, gathers the settings, starts the bridge; and the
// listener for the platform's messages and network status.
#pragma once

#include <cstdint>
#include <memory>
#include <mutex>

#include "platform/Kora.h"
#include "platform/Nesh.h"
#include "platform/Thread.h"

namespace android {

// Creation    GetInstance, on the main thread; blocks until the message service and the network
//             service answer (tried every 3 s and every 50 ms, without limit), then listens.
// Start       run() starts the start-up pass: one round of threadLoop on a thread of its own.
// Destruction stopStartUp, then ReleaseInstance, on the main thread, when the platform delivers no
//             notification any more. The object goes with its last strong pointer.
// Threads     the notifications arrive on any platform thread, two at a time possible, from
//             construction on and concurrently with the start-up pass.
// Order       of the virtual functions: the platform's slots, which is why the access changes back
//             and forth.
// Locks       NetworkState::mutex only. The start-up pass holds it except while it waits, so what a
//             notification decides under it takes effect after the pass.
class NuvioConnectStart : public IKoraAlerts, public INeshAlerts, public virtual Thread {
  public:
    // The only object of this class, made on the first call.
    static NuvioConnectStart* GetInstance();
    // Stops listening and gives up the process's own reference. Nothing happens without an object.
    static void ReleaseInstance();

    // Posts a shutdown request ("DISCONNECTSOURCE") or a changed device name to the bridge.
    void MessageBoxAlert(uint16_t id, uint16_t value) override;
    void MessageBoxAlert(uint16_t id, uint16_t value, uint32_t data) override;

  protected:
    ~NuvioConnectStart() override;

  private:
    bool threadLoop() override;

  public:
    // Follows interfaces 1 and 2: the latest event decides whether there is a network.
    void NeshAlert(uint8_t iface, uint8_t status) override;

    // A pass that waits for the network ends without a bridge; returns when the pass has ended.
    void stopStartUp();

  private:
    NuvioConnectStart();
    void initKORA();
    void waitForNetwork(std::unique_lock<std::mutex>& lock);
    void handleDeviceName();

    // Kept to the end: a notification under way may still use them.
    std::unique_ptr<NeshHelper> m_nesh;
    std::unique_ptr<KORAHelper> m_kora;
    Vector<int> m_koraIds;
};

}  // namespace android
