// Whether the HTTP port can be had. Binds it for a moment; any thread.
#pragma once

#include <cstdint>

#include "diagnostics/finding.h"

// Doubtful where a nuvio-connect holds it, this device or another one. Who holds it is known for
// processes of the caller's own account, to root for all.
Finding check_port(const char* subject, uint16_t port);
