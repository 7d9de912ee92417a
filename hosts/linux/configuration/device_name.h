// What the device may be called. Pure; any thread.
#pragma once

#include <string_view>

namespace nuvio::host {

// A name that can be shown, stored and announced: plain UTF-8 without control characters and
// without blanks at either end, 1 to 255 bytes, and without a word that the service would take for
// another command.
bool is_device_name(std::string_view name);

}  // namespace nuvio::host
