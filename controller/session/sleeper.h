// Sleep timers: a device is paused in so many minutes, or at the end of the track that it plays.
// One outlives what is played meanwhile, as another album, and a restart of the controller; it ends
// with the device's session.
//
// Threads  any; a thread of its own pauses the devices, and sleeps until the next one is due. `set`
//          and `set_at_end` wait for the disk.
#pragma once

#include <chrono>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <thread>

#include "controller/session/commands.h"
#include "controller/session/house_state.h"

namespace nuvio::controller {

class Sleeper {
  public:
    // Borrows both. The state is to be closed before the end.
    Sleeper(HouseState& house, Commands& commands);
    ~Sleeper();
    Sleeper(const Sleeper&) = delete;
    Sleeper& operator=(const Sleeper&) = delete;

    // Zero takes the timer away.
    Outcome set(const std::string& device, std::chrono::minutes in);
    Outcome set_at_end(const std::string& device);

  private:
    using Time = Commands::Clock::time_point;
    struct Due {
        std::string device;
        Time at;
    };

    void run();
    std::optional<Due> next_due();
    std::optional<Time> due(const std::string& id, const Device& device, const Sleep& sleep);
    std::optional<Time> end_of_track(const std::string& id, const DeviceState& state,
                                     const Sleep& sleep);
    void fall_asleep(std::unique_lock<std::mutex>& lock, const std::string& id);

    HouseState& m_house;
    Commands& m_commands;
    std::map<std::string, Time> m_ends;  // of tracks, as last known; under the house's mutex
    std::thread m_thread;
};

}  // namespace nuvio::controller
