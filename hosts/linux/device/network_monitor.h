// NetworkMonitor: whether the machine has a usable wired (1) and wireless (2) interface, from the
// kernel.
//
// An interface is usable when it is up, running and has an address that reaches beyond its link:
// IPv4, or IPv6 of more than link scope. Ethernet of any kind, virtual too, counts as wired. The
// kernel reports changes on a socket; whoever owns the thread calls handle_events when it is
// readable. Nothing is polled. All other functions: any thread.
#pragma once

#include <array>
#include <functional>
#include <mutex>
#include <optional>
#include <vector>

#include "common/unique_fd.h"
#include "device/notification_pool.h"
#include "platform/Nesh.h"

namespace nuvio::host {

inline constexpr int kWired = 1;
inline constexpr int kWireless = 2;

class NetworkMonitor {
  public:
    // With `allow_loopback` the loopback interface counts as wired.
    NetworkMonitor(NotificationPool& pool, bool allow_loopback);

    // Called after each change of the status, with the monitor's lock held, so it must not call the
    // monitor. Before any other call.
    void set_observer(std::function<void()> observer) { m_observer = std::move(observer); }

    // Of interface 1 or 2; false for any other.
    bool is_usable(int iface) const;

    // The kernel's socket, -1 where there is none (the status then stays as it was at the start).
    int fd() const { return m_socket.get(); }
    // Takes the kernel's reports and tells the listeners of what has changed.
    void handle_events();

    // Makes an interface count as usable or not, whatever the kernel says; nullopt follows the
    // kernel again. Listeners are told of a change.
    void override_status(int iface, std::optional<bool> usable);

    void add_listener(const android::sp<android::INeshAlerts>& listener);
    void remove_listener(const android::sp<android::INeshAlerts>& listener);

  private:
    using Status = std::array<bool, 2>;  // wired, wireless

    Status scan() const;
    Status effective() const;
    void tell_changes(const Status& before);
    bool is_registered(const android::sp<android::INeshAlerts>& listener) const;

    NotificationPool& m_pool;
    const bool m_allow_loopback;
    UniqueFd m_socket;
    std::function<void()> m_observer;

    mutable std::mutex m_mutex;
    // All guarded by m_mutex.
    Status m_kernel{};
    std::array<std::optional<bool>, 2> m_overrides;
    std::vector<android::sp<android::INeshAlerts>> m_listeners;
};

}  // namespace nuvio::host
