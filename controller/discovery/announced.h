// What of an announcement is taken: anyone on the network can announce anything. Pure functions,
// any thread.
#pragma once

#include <string>

namespace nuvio::controller {

// The path before the endpoints' names; "/" for one that is more than a path, such as with a query.
std::string path_taken(const std::string& announced);

// Whether a request may go to `address`, IPv4 or IPv6: never to all or to any, and to this machine
// itself only where it is announced on this machine, `is_on_loopback`.
bool is_address_taken(const std::string& address, bool is_on_loopback);

}  // namespace nuvio::controller
