#include "bus/changed_properties.h"

#include <vector>

namespace nuvio::host {

void emit_changed(sd_bus* bus, const char* path, const char* interface,
                  std::span<const ChangedProperty> properties, uint32_t changes) {
    std::vector<char*> names;
    for (const ChangedProperty& property : properties) {
        if ((changes & property.change) != 0) {
            // The library takes an array of char* and leaves the texts alone.
            names.push_back(const_cast<char*>(property.name));
        }
    }
    if (!names.empty()) {
        names.push_back(nullptr);
        sd_bus_emit_properties_changed_strv(bus, path, interface, names.data());
    }
}

}  // namespace nuvio::host
