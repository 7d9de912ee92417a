// Host: the device's services on an ordinary Linux machine, behind the interfaces of src/platform.
//
// One per process, made on first use and never destroyed: the service's objects call it up to the
// last moment of the process. Its threads end with joinThreadPool or, failing that, at exit.
#pragma once

#include <atomic>
#include <cstdint>
#include <mutex>
#include <string>

#include "configuration/settings.h"
#include "configuration/state_store.h"
#include "device/changes.h"
#include "device/controls.h"
#include "device/device_model.h"
#include "device/message_store.h"
#include "device/network_monitor.h"
#include "device/notification_pool.h"
#include "device/now_playing.h"
#include "device/source_switch.h"
#include "dispatch/dispatcher.h"
#include "watch/hooks.h"

namespace nuvio::host {

class Host {
  public:
    static Host& instance();

    // Starts the threads: notifications, network events, the bus. A second call does nothing. The
    // first must come before the process starts other threads: it blocks SIGTERM and SIGINT, which
    // wait_for_end takes, for the calling thread and those started from then on.
    void start();

    // Tells a service manager that waits for it (systemd, Type=notify) that the service is ready.
    // Waits for SIGTERM or SIGINT, then stops. Returns at once when the host has been stopped. The
    // main thread's.
    void wait_for_end();

    const Settings& settings() const { return m_settings; }
    // Reads the settings file again, for settings() alone. Only before start: other threads read
    // it.
    void reload_settings();
    MessageStore& messages() { return m_messages; }
    NetworkMonitor& network() { return m_network; }
    SourceSwitch& source_switch() { return m_source_switch; }
    NowPlaying& now_playing() { return m_now_playing; }

  private:
    Host();
    ~Host() = delete;

    void tell_core() const;
    static void tell_pipewire();
    void preset_messages();
    void on_message(int id, const std::string& text);
    void on_change(uint32_t changes);
    void stop();
    void stop_for_good();
    void report_stopping() const;

    Settings m_settings;  // const once started
    NotificationPool m_pool;
    MessageStore m_messages;
    NowPlaying m_now_playing;
    SourceSwitch m_source_switch;
    NetworkMonitor m_network;
    StateStore m_state;
    Controls m_controls;
    const DeviceModel m_device;
    Dispatcher m_dispatcher;
    Hooks m_hooks;
    std::mutex m_lifecycle;  // start and stop, one at a time
    bool m_started = false;  // guarded by m_lifecycle
    std::atomic<bool> m_stopped{false};
    bool m_reported_ready = false;  // the main thread's
};

}  // namespace nuvio::host
