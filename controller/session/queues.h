// Changes of a device's queue that take something away, and the way back: of each device the last
// one is remembered, until its session ends or it was taken back; what failed half way is, too.
//
// Threads  any; each waits for the device, as Sessions and Commands do.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "controller/session/commands.h"
#include "controller/session/house_state.h"
#include "controller/session/sessions.h"

namespace nuvio::controller {

class Queues {
  public:
    // Borrows all.
    Queues(HouseState& house, Commands& commands, Sessions& sessions)
        : m_house(house), m_commands(commands), m_sessions(sessions) {}

    // As Sessions::play and Commands::run; `undo` of the outcome: what takes it back.
    Outcome play(const std::string& device, const std::vector<Playable>& items, Where where,
                 std::optional<size_t> start = std::nullopt, const Sessions::Prepare& prepare = {});
    Outcome run(const std::string& device, const std::string& name, JsonPtr arguments);
    // All but the current track, which plays on.
    Outcome clear(const std::string& device);
    // What was taken away last comes back, with the place in it; `number`: if it was that. What
    // plays goes on, unless it came in the place of what comes back.
    Outcome undo(const std::string& device, std::optional<int64_t> number);

  private:
    using Time = Commands::Clock::time_point;
    using Meant = std::function<bool(const QueueItem&)>;

    bool has_whole_queue(const std::string& id, Time latest);
    std::optional<Taken> taken(const std::string& id, const Meant& is_meant);
    Outcome keep(const std::string& id, std::optional<Taken> taken, Outcome outcome);
    void keep_again(const std::string& id, Taken taken);
    Outcome put_back(const std::string& id, Taken& taken, Time latest);
    Outcome play_again(const std::string& id, const Taken& taken);
    void go_to(const std::string& id, const Taken& taken, Time latest);

    HouseState& m_house;
    Commands& m_commands;
    Sessions& m_sessions;
    int64_t m_count = 0;  // of presses; under the house's lock
};

}  // namespace nuvio::controller
