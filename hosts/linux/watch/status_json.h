// The device's status for machines. A pure function, any thread.
#pragma once

#include <string>

#include "device/device_model.h"

namespace nuvio::host {

// One line, every member always there; null where there is nothing, or nobody knows.
std::string status_json(const DeviceState& state);

}  // namespace nuvio::host
