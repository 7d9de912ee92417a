// Where a message bus may be found. Pure but for the environment; any thread.
#pragma once

#include <string>
#include <vector>

namespace nuvio::host {

struct BusAddress {
    std::string text;         // as the bus library takes it
    std::string socket_path;  // of its socket in the file system; empty: it has none there
};

// The places to try, best first. `choice` is the setting host.bus: "session", "system", "none", an
// address (with a ':'), or anything else for the session bus where the environment has one, then
// the system bus.
std::vector<BusAddress> bus_addresses(const std::string& choice);

}  // namespace nuvio::host
