// Dispatcher: the host's own thread - network reports from the kernel, the message bus, the
// metrics' socket, and saving the state. Sleeps unless something happens.
//
// start, stop and the notices may come from any thread; the notices take only a lock of
// their own and never wait.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "bus/bus_link.h"
#include "bus/mpris.h"
#include "bus/panel.h"
#include "common/unique_fd.h"
#include "configuration/settings.h"
#include "configuration/state_store.h"
#include "device/controls.h"
#include "device/device_model.h"
#include "device/network_monitor.h"
#include "watch/metrics_socket.h"

namespace nuvio::host {

class Dispatcher {
  public:
    Dispatcher(Controls& controls, const DeviceModel& device, NetworkMonitor& network,
               StateStore& state, const Settings& settings);
    ~Dispatcher() { stop(); }
    Dispatcher(const Dispatcher&) = delete;
    Dispatcher& operator=(const Dispatcher&) = delete;

    // Once.
    void start();
    // Leaves the bus, saves the state and waits for the thread, which is never long in anything.
    void stop();

    // What has changed of the device (device/changes.h).
    void changed(uint32_t changes);
    // For those who follow the raw messages; nothing where there are none.
    void message_changed(int id, const std::string& text);
    // Saves within a second, so that a moving volume control is one save.
    void save_soon();

  private:
    using Clock = std::chrono::steady_clock;

    struct Notices {
        uint32_t changes = 0;
        std::map<int, std::string> messages;  // the latest text, by id
        bool save = false;
    };

    void run();
    Notices take_notices();
    void publish();
    void wait_for_events();
    void save_when_due();
    void wake();
    int set_up(sd_bus* bus);

    const DeviceModel& m_device;
    NetworkMonitor& m_network;
    StateStore& m_state;
    UniqueFd m_wake;  // eventfd

    std::mutex m_mutex;
    Notices m_notices;  // guarded by m_mutex

    std::atomic<bool> m_stop{false};
    std::thread m_thread;

    // The thread's own.
    Mpris m_mpris;
    Panel m_panel;
    const bool m_shows_raw_messages;
    BusLink m_link;
    MetricsSocket m_metrics;
    std::optional<Clock::time_point> m_save_at;
};

}  // namespace nuvio::host
