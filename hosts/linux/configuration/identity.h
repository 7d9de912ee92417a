// Who this machine is: from the settings where they say, else from the machine itself.
#pragma once

#include <string>

#include "configuration/settings.h"

namespace nuvio::host {

// Each returns an empty text where neither knows. `root` stands before every path ("" on a real
// machine). Any thread.

// Setting, else the pretty host name of /etc/machine-info, else the host name.
std::string friendly_name(const Settings& settings, const std::string& root = "");
// Setting, else the vendor in the firmware's tables.
std::string manufacturer(const Settings& settings, const std::string& root = "");
// Setting, else the product in the firmware's tables, else the device tree's model.
std::string model(const Settings& settings, const std::string& root = "");

}  // namespace nuvio::host
