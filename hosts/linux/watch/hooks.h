// Hooks: commands and units that follow the device - an amplifier's relay, a light.
//
// A thread of their own, where one is set: it sleeps until the device changes, and whatever a hook
// does holds up nothing else. Of each kind - state, volume, session - one runs at a time, at most
// ten a second and ten seconds each; of what changes meanwhile the last counts. What turns
// something off waits, and is forgotten where it comes back in that time. At the start each kind
// but the volume is told once how things stand, so that what a crash left on goes off.
#pragma once

#include <poll.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "common/unique_fd.h"
#include "configuration/settings.h"
#include "device/device_model.h"
#include "watch/hook_process.h"

namespace nuvio::host {

class Hooks {
  public:
    // Both borrowed.
    Hooks(const Settings& settings, const DeviceModel& device);
    ~Hooks() { stop(); }
    Hooks(const Hooks&) = delete;
    Hooks& operator=(const Hooks&) = delete;

    // Once; the main thread's. Does nothing where no hook is set. Throws std::system_error without
    // a thread.
    void start();
    // What has changed of the device (device/changes.h); any thread, with locks held.
    void changed(uint32_t changes);
    // Tells the end of playback and session without a delay, gives each hook three seconds, and
    // waits for the thread.
    void stop();

  private:
    using Clock = std::chrono::steady_clock;

    // What runs one at a time.
    struct Slot {
        std::string wanted;            // how things are
        std::string told;              // to the last hook, run or not set
        Clock::time_point due;         // for what is wanted
        Clock::time_point rest_until;  // for any
        HookProcess process;
        Clock::time_point kill_at;  // while it runs
        bool killed = false;
        bool failed = false;  // the last one: said once
    };
    enum Kind : uint8_t { kState, kVolume, kSession, kKinds };

    void run();
    void look(Clock::time_point now);
    void want(Slot& slot, const std::string& value, Clock::time_point now) const;
    void begin(Kind kind, Clock::time_point now);
    void look_after(Kind kind, Clock::time_point now);
    static Clock::time_point begins_at(const Slot& slot) {
        return std::max(slot.due, slot.rest_until);
    }
    bool all_done() const;
    void wait(Clock::time_point now);
    static std::string event_of(Kind kind, const Slot& slot);
    static void report(Slot& slot, const std::string& event, const std::string& fault);

    const Settings& m_settings;
    const DeviceModel& m_device;
    UniqueFd m_wake;  // eventfd
    std::atomic<bool> m_stop{false};
    std::thread m_thread;

    // The thread's own; set before it starts.
    std::array<Slot, kKinds> m_slots;
    std::vector<std::string> m_environment;
    std::chrono::seconds m_off_delay{0};
};

}  // namespace nuvio::host
