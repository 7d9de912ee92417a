#include "configuration/device_name.h"

#include "base/text.h"

namespace nuvio::host {

bool is_device_name(std::string_view name) {
    const auto contains = [name](std::string_view word) {
        return name.find(word) != std::string_view::npos;
    };
    return !name.empty() && trim(name) == name && name.size() <= 255 && is_printable_utf8(name) &&
           !contains("SEEK:") && !contains("VOLUME:");
}

}  // namespace nuvio::host
