// Commands to devices over their channels: each has an id, its answer is waited for.
//
// Threads  any. `run` waits for the device: its channel has 3 s to open, its answer kPatience, what
//          comes of it a second.
#pragma once

#include <chrono>
#include <map>
#include <optional>
#include <string>

#include "common/json/json.h"
#include "controller/session/house_state.h"

namespace nuvio::controller {

struct Outcome {
    bool is_ok = false;
    std::string reason;  // for people: why not; else what was left as it was, if anything
    int64_t undo = 0;    // the number that takes it back (Queues); 0: nothing does
};

class Commands {
  public:
    using Clock = DeviceState::Clock;
    static constexpr std::chrono::seconds kPatience{10};

    explicit Commands(HouseState& house) : m_house(house) {}

    enum class Until { effect, answer };
    // A command of the channel, with its arguments; waits until `latest` at most. Comes back once
    // its effect can be seen, where it has one and that is wanted; what a device has left its token
    // opens no more.
    Outcome run(const std::string& device, const std::string& name, JsonPtr arguments,
                Clock::time_point latest = Clock::time_point::max(), Until until = Until::effect);

    // ---- With the house's lock held

    void take_answer(const cJSON* message);
    void fail(const std::string& device, const std::string& reason);
    void fail_all_of(const std::string& device);
    // What the device's list has beyond what one message holds, unless it is being filled.
    static void read_rest(const Device& device);
    // One that nobody waits for.
    static void send(const Device& device, const char* name, const std::string& id,
                     JsonPtr arguments);

  private:
    struct Waiting {
        std::string device;
        std::optional<Outcome> outcome;
    };

    Outcome wait_for_answer(std::unique_lock<std::mutex>& lock, const std::string& id,
                            Clock::time_point latest);

    HouseState& m_house;
    std::map<std::string, Waiting> m_waiting;  // by the command's id; under the house's lock
    uint64_t m_count = 0;                      // the same
};

}  // namespace nuvio::controller
