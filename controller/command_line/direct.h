// Devices without a controller: found on the network for a moment, and handed a session as it is
// given. For a look, for scripts and for tests.
#pragma once

#include <string>

namespace nuvio::controller {

// Prints the devices with addresses, TXT entries and what they answer. The exit status.
int find_devices();
// Hands the device a session whose content is `what`, a path or URL as the device sees it; a
// relative path suits a device on this machine. The exit status.
int connect_device(const std::string& name, const std::string& what);

}  // namespace nuvio::controller
