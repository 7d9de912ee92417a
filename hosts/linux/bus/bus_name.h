// Names on the message bus.
#pragma once

#include <systemd/sd-bus.h>

namespace nuvio::host {

// Asks for a well-known name, of static storage; the answer comes while the bus is processed. Where
// another process has it already, the name with ".instance" and the process id behind it is asked
// for instead. A refusal is one log line. Returns a negative errno value when asking failed.
int request_bus_name(sd_bus* bus, const char* name);

}  // namespace nuvio::host
