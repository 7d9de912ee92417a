// What a service manager shows of the device: the state and what plays, or what keeps it from
// playing.
#pragma once

#include "device/device_model.h"

namespace nuvio::host {

// Tells the manager, e.g. "Playing: Title - Artist"; nothing where there is none. The dispatcher's
// thread: the manager may be slow.
void report_status(const DeviceModel& device);

}  // namespace nuvio::host
