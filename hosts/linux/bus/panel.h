// Panel: the rest of the device on the message bus - what a front panel and the device's other
// parts do - as the interface org.nuvioconnect.Host1.
//
// On the dispatcher's thread. Calls are answered first; the service hears of them on the
// notification pool.
#pragma once

#include <systemd/sd-bus.h>

#include <cstdint>

#include "device/controls.h"
#include "device/device_model.h"

namespace nuvio::host {

class Panel {
  public:
    static constexpr char kBusName[] = "org.nuvioconnect.Host1";
    static constexpr char kPath[] = "/org/nuvioconnect/Host1";

    Panel(Controls& controls, const DeviceModel& device) : m_controls(controls), m_device(device) {}

    // Puts the object on the connection, for the connection's life. Negative errno on failure.
    int attach(sd_bus* bus);

    // Signals the changes (device/changes.h). The bus is there.
    static void publish(sd_bus* bus, uint32_t changes);

    Controls& controls() { return m_controls; }
    const DeviceModel& device() const { return m_device; }

  private:
    Controls& m_controls;
    const DeviceModel& m_device;
};

}  // namespace nuvio::host
