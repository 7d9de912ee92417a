// Properties of an object on the bus, and which change of the device each of them shows.
#pragma once

#include <systemd/sd-bus.h>

#include <cstdint>
#include <span>

#include "device/changes.h"

namespace nuvio::host {

struct ChangedProperty {
    uint32_t change;   // one bit
    const char* name;  // static
};

// Signals those that the changes are about, in one message; nothing where there are none. The
// thread that has the bus.
void emit_changed(sd_bus* bus, const char* path, const char* interface,
                  std::span<const ChangedProperty> properties, uint32_t changes);

}  // namespace nuvio::host
