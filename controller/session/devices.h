// Which devices there are, and how they are: those that discovery tells of are asked over HTTP, and
// asked again after a channel has broken.
//
// Threads  any, for every function; `rename` waits for the disk, no other waits. A few threads of
// its own ask the devices, so that
//          one that does not answer holds up few others.
#pragma once

#include <map>
#include <optional>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "common/json/json.h"
#include "controller/device/http_client.h"
#include "controller/library/library.h"
#include "controller/session/commands.h"
#include "controller/session/house_state.h"

namespace nuvio::controller {

class Devices {
  public:
    // Borrows the state, which is to be closed before the end.
    explicit Devices(HouseState& house);
    ~Devices();
    Devices(const Devices&) = delete;
    Devices& operator=(const Devices&) = delete;

    void set_found(const std::vector<FoundDevice>& found);
    // Asks all that are there how they are; soon.
    void ask_again();
    struct Named {
        std::string id;
        std::string failure;  // for people; empty: there is one
    };
    // By id, or by name where case does not matter; one that is away by name where no other is
    // called so. An id is what a device says of itself: one that is no UUID counts as a name.
    Named named(const std::string& name) const;
    // What it is called from now on here; nothing but blanks: what it calls itself.
    Outcome rename(const std::string& id, const std::string& name);
    // An array, by name; of all devices, or of one.
    JsonPtr describe(const std::string& id = {}) const;
    // A device's queue; none: no such device, or not all of it is known just now.
    std::optional<std::vector<Library::Queued>> queued(const std::string& id) const;
    JsonPtr describe_queue(const std::string& id) const;  // null: no such device

  private:
    void run();
    std::map<std::string, DeviceState::Clock::time_point>::iterator next_errand();
    void ask(const FoundDevice& found);
    void give_up_waiting(const std::string& id, Device& device);
    bool learn(const std::string& id, const HttpAnswer& display, const HttpAnswer& connect);

    HouseState& m_house;
    std::set<std::string> m_asked;  // just now; under the house's mutex
    std::vector<std::thread> m_threads;
};

}  // namespace nuvio::controller
