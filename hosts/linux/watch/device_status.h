// DeviceStatus: how the device does, for those who look after it - as JSON, and as a page of
// metrics.
//
// Put together from what is known already when it is asked for; asks no card and wakes nothing. Any
// thread.
#pragma once

#include <chrono>
#include <string>

#include "device/controls.h"
#include "platform/ServiceReport.h"

namespace nuvio::host {

// What the service offers to tell (platform/ServiceReport.h); null, as at first, where it tells
// nothing.
void set_service_report(ServiceReport report);

class DeviceStatus {
  public:
    // The controls are borrowed. The device counts as started now.
    explicit DeviceStatus(Controls& controls) : m_controls(controls) {}

    // One line, every member always there; null where there is nothing, or nobody knows.
    std::string json() const;

    // Prometheus's text format, version 0.0.4. What nobody knows is left out.
    std::string metrics() const;

  private:
    using Clock = std::chrono::steady_clock;

    std::chrono::seconds uptime() const {
        return std::chrono::duration_cast<std::chrono::seconds>(Clock::now() - m_started);
    }

    Controls& m_controls;
    const Clock::time_point m_started = Clock::now();
};

}  // namespace nuvio::host
