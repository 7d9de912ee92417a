// The controller as a service: everything made, connected, and taken down again in reverse.
#pragma once

#include "controller/base/settings.h"

namespace nuvio::controller {

// Runs until SIGTERM or SIGINT. The exit status.
int serve(const Settings& settings);

}  // namespace nuvio::controller
