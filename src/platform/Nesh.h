// Nesh: the platform's network status.
#pragma once

#include <cstdint>
#include <memory>

#include "platform/RefBase.h"

namespace android {

class INeshAlerts : public virtual RefBase {
  public:
    // Interface (1 wired, 2 wireless) has become usable (status 1) or unusable (status 0). Arrives
    // on a platform thread.
    virtual void NeshAlert(uint8_t iface, uint8_t status) = 0;
};

// A connection to the network-status service. Every call may come from any thread.
class NeshHelper {
  public:
    NeshHelper();
    ~NeshHelper();
    NeshHelper(const NeshHelper&) = delete;
    NeshHelper& operator=(const NeshHelper&) = delete;

    // True when the service is reachable.
    bool verifyConnection_l();
    // The service keeps the listener until unregisterListener.
    void registerListener(const sp<INeshAlerts>& listener);
    void unregisterListener(const sp<INeshAlerts>& listener);
    // Sets *status to non-zero when interface 1 or 2 is usable, else to 0, also for any other
    // interface. Never calls a listener.
    void getNetworkStatus(int iface, int* status);

  private:
    struct Impl;
    std::unique_ptr<Impl> m_impl;
};

}  // namespace android
