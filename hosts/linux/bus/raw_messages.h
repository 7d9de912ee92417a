// The platform's numbered messages on the message bus, as they are: the interface
// org.nuvioconnect.Host1.Messages of the panel's object. For tests and for whoever brings up a
// device; there only where the setting host.bus_messages asks for it.
//
// On the dispatcher's thread.
#pragma once

#include <systemd/sd-bus.h>

#include <string>

#include "device/controls.h"

namespace nuvio::host {

// Adds the interface to the connection, for the connection's life; the controls are borrowed for as
// long. Negative errno on failure.
int attach_raw_messages(sd_bus* bus, Controls& controls);

// Signals a message's new text. The bus is there.
void publish_raw_message(sd_bus* bus, int id, const std::string& text);

}  // namespace nuvio::host
