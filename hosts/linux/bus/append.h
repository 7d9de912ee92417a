// A property's value into the answer, in the type of the bus that is its own: negative errno on
// failure. The thread that has the message.
#pragma once

#include <systemd/sd-bus.h>

#include <cstdint>
#include <string>

namespace nuvio::host {

inline int append(sd_bus_message* reply, const std::string& text) {
    return sd_bus_message_append(reply, "s", text.c_str());
}
int append(sd_bus_message* reply, const char* text) = delete;  // it would be a bool
inline int append(sd_bus_message* reply, bool value) {
    return sd_bus_message_append(reply, "b", value ? 1 : 0);
}
inline int append(sd_bus_message* reply, int32_t number) {
    return sd_bus_message_append(reply, "i", number);
}
inline int append(sd_bus_message* reply, int64_t number) {
    return sd_bus_message_append(reply, "x", number);
}
inline int append(sd_bus_message* reply, double number) {
    return sd_bus_message_append(reply, "d", number);
}

}  // namespace nuvio::host
