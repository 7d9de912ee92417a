#include "bus/raw_messages.h"

#include <cstdint>

#include "base/text.h"
#include "bus/panel.h"

namespace nuvio::host {

namespace {

constexpr char kInterface[] = "org.nuvioconnect.Host1.Messages";

int refuse(sd_bus_error* error, const char* why) {
    return sd_bus_error_set_const(error, SD_BUS_ERROR_INVALID_ARGS, why);
}

int on_read_message(sd_bus_message* call, void* userdata, sd_bus_error* error) {
    int32_t id = 0;
    if (const int r = sd_bus_message_read(call, "i", &id); r < 0) {
        return r;
    }
    std::string text;
    if (!static_cast<Controls*>(userdata)->messages().read(id, text)) {
        return refuse(error, "The message has no value");
    }
    return sd_bus_reply_method_return(call, "s", to_utf8(text).c_str());
}

int on_write_message(sd_bus_message* call, void* userdata, sd_bus_error* error) {
    int32_t id = 0;
    const char* text = nullptr;
    if (const int r = sd_bus_message_read(call, "is", &id, &text); r < 0) {
        return r;
    }
    return static_cast<Controls*>(userdata)->write_message(id, text)
               ? sd_bus_reply_method_return(call, "")
               : refuse(error, "The message does not take this text");
}

constexpr uint64_t kOpen = SD_BUS_VTABLE_UNPRIVILEGED;

const sd_bus_vtable kTable[] = {
    SD_BUS_VTABLE_START(0),
    SD_BUS_METHOD_WITH_NAMES("ReadMessage", "i", SD_BUS_PARAM(id), "s", SD_BUS_PARAM(text),
                             on_read_message, kOpen),
    SD_BUS_METHOD_WITH_NAMES("WriteMessage", "is", SD_BUS_PARAM(id) SD_BUS_PARAM(text), "", ,
                             on_write_message, kOpen),
    SD_BUS_SIGNAL_WITH_NAMES("MessageChanged", "is", SD_BUS_PARAM(id) SD_BUS_PARAM(text), 0),
    SD_BUS_VTABLE_END,
};

}  // namespace

int attach_raw_messages(sd_bus* bus, Controls& controls) {
    return sd_bus_add_object_vtable(bus, nullptr, Panel::kPath, kInterface, kTable, &controls);
}

void publish_raw_message(sd_bus* bus, int id, const std::string& text) {
    sd_bus_emit_signal(bus, Panel::kPath, kInterface, "MessageChanged", "is", id,
                       to_utf8(text).c_str());
}

}  // namespace nuvio::host
