#include "configuration/device_name.h"

#include "base/text.h"

namespace nuvio::host {

bool is_device_name(std::string_view name) {
    return !name.empty() && trim(name) == name && name.size() <= 255 && is_printable_utf8(name);
}

}  // namespace nuvio::host
