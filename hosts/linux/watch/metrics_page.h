// The device as a page of metrics. A pure function, any thread.
#pragma once

#include <string>

#include "device/device_model.h"

namespace nuvio::host {

// Prometheus's text format, version 0.0.4. What nobody knows is left out.
std::string metrics_page(const DeviceState& state);

}  // namespace nuvio::host
