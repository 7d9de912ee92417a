#include "bus/panel.h"

#include <cstdint>
#include <functional>
#include <optional>
#include <string>

#include "bus/append.h"
#include "bus/changed_properties.h"
#include "watch/status_json.h"

namespace nuvio::host {

namespace {

constexpr char kInterface[] = "org.nuvioconnect.Host1";
constexpr char kErrorNoSource[] = "org.nuvioconnect.Host1.Error.NoSource";

Controls& controls(void* userdata) {
    return static_cast<Panel*>(userdata)->controls();
}

const DeviceModel& device(void* userdata) {
    return static_cast<Panel*>(userdata)->device();
}

int refuse(sd_bus_error* error, const char* why) {
    return sd_bus_error_set_const(error, SD_BUS_ERROR_INVALID_ARGS, why);
}

int done(sd_bus_message* call) {
    return sd_bus_reply_method_return(call, "");
}

// --- methods ---

int on_take_output(sd_bus_message* call, void* userdata, sd_bus_error* error) {
    int32_t source = 0;
    if (const int r = sd_bus_message_read(call, "i", &source); r < 0) {
        return r;
    }
    return controls(userdata).take_output(source)
               ? done(call)
               : refuse(error, "The other sources are numbered 1 to 255, without 31");
}

int on_give_back_output(sd_bus_message* call, void* userdata, sd_bus_error*) {
    controls(userdata).give_back_output();
    return done(call);
}

int on_refuse_next_request(sd_bus_message* call, void* userdata, sd_bus_error*) {
    controls(userdata).refuse_next_request();
    return done(call);
}

int on_standby(sd_bus_message* call, void* userdata, sd_bus_error* error) {
    return controls(userdata).command("STANDBYON")
               ? done(call)
               : sd_bus_error_set_const(error, kErrorNoSource, "No source is connected");
}

int on_request_shutdown(sd_bus_message* call, void* userdata, sd_bus_error*) {
    controls(userdata).request_shutdown();
    return done(call);
}

int on_rename(sd_bus_message* call, void* userdata, sd_bus_error* error) {
    const char* name = nullptr;
    if (const int r = sd_bus_message_read(call, "s", &name); r < 0) {
        return r;
    }
    return controls(userdata).rename(name)
               ? done(call)
               : refuse(error, "A name is 1 to 255 bytes of plain text, no blank at its ends");
}

int on_set_mute(sd_bus_message* call, void* userdata, sd_bus_error*) {
    int muted = 0;
    if (const int r = sd_bus_message_read(call, "b", &muted); r < 0) {
        return r;
    }
    controls(userdata).set_mute(muted != 0);
    return done(call);
}

int on_network_status(sd_bus_message* call, void* userdata, sd_bus_error* error) {
    int32_t iface = 0;
    if (const int r = sd_bus_message_read(call, "i", &iface); r < 0) {
        return r;
    }
    if (iface != kWired && iface != kWireless) {
        return refuse(error, "Interface 1 is wired, 2 is wireless");
    }
    return sd_bus_reply_method_return(call, "i", device(userdata).is_usable(iface) ? 1 : 0);
}

int on_override_network(sd_bus_message* call, void* userdata, sd_bus_error* error) {
    int32_t iface = 0;
    int32_t status = 0;
    if (const int r = sd_bus_message_read(call, "ii", &iface, &status); r < 0) {
        return r;
    }
    if ((iface != kWired && iface != kWireless) || status < -1 || status > 1) {
        return refuse(error, "Interface 1 or 2; status 0, 1, or -1 for what the kernel says");
    }
    controls(userdata).network().override_status(
        iface, status < 0 ? std::nullopt : std::optional<bool>(status == 1));
    return done(call);
}

int on_status(sd_bus_message* call, void* userdata, sd_bus_error*) {
    const std::string status = status_json(device(userdata).state());
    return sd_bus_reply_method_return(call, "s", status.c_str());
}

// --- properties ---

bool wired(const DeviceModel& device) {
    return device.is_usable(kWired);
}
bool wireless(const DeviceModel& device) {
    return device.is_usable(kWireless);
}

template <auto part>
int get(sd_bus*, const char*, const char*, const char*, sd_bus_message* reply, void* userdata,
        sd_bus_error*) {
    return append(reply, std::invoke(part, device(userdata)));
}

constexpr uint64_t kOpen = SD_BUS_VTABLE_UNPRIVILEGED;
constexpr uint64_t kChanges = SD_BUS_VTABLE_PROPERTY_EMITS_CHANGE;

const sd_bus_vtable kTable[] = {
    SD_BUS_VTABLE_START(0),
    SD_BUS_METHOD_WITH_NAMES("TakeOutput", "i", SD_BUS_PARAM(source), "", , on_take_output, kOpen),
    SD_BUS_METHOD("GiveBackOutput", "", "", on_give_back_output, kOpen),
    SD_BUS_METHOD("RefuseNextRequest", "", "", on_refuse_next_request, kOpen),
    SD_BUS_METHOD("Standby", "", "", on_standby, kOpen),
    SD_BUS_METHOD("RequestShutdown", "", "", on_request_shutdown, kOpen),
    SD_BUS_METHOD_WITH_NAMES("Rename", "s", SD_BUS_PARAM(name), "", , on_rename, kOpen),
    SD_BUS_METHOD_WITH_NAMES("SetMute", "b", SD_BUS_PARAM(muted), "", , on_set_mute, kOpen),
    SD_BUS_METHOD_WITH_NAMES("NetworkStatus", "i", SD_BUS_PARAM(interface), "i",
                             SD_BUS_PARAM(status), on_network_status, kOpen),
    SD_BUS_METHOD_WITH_NAMES("OverrideNetwork", "ii", SD_BUS_PARAM(interface) SD_BUS_PARAM(status),
                             "", , on_override_network, kOpen),
    SD_BUS_METHOD_WITH_NAMES("Status", "", , "s", SD_BUS_PARAM(json), on_status, kOpen),
    SD_BUS_PROPERTY("DeviceName", "s", get<&DeviceModel::name>, 0, kChanges),
    SD_BUS_PROPERTY("CurrentSource", "i", get<&DeviceModel::current_source>, 0, kChanges),
    SD_BUS_PROPERTY("Muted", "b", get<&DeviceModel::is_muted>, 0, kChanges),
    SD_BUS_PROPERTY("Wired", "b", get<wired>, 0, kChanges),
    SD_BUS_PROPERTY("Wireless", "b", get<wireless>, 0, kChanges),
    SD_BUS_VTABLE_END,
};

constexpr ChangedProperty kProperties[] = {
    {kDeviceName, "DeviceName"}, {kDeviceSource, "CurrentSource"}, {kDeviceMute, "Muted"},
    {kDeviceNetwork, "Wired"},   {kDeviceNetwork, "Wireless"},
};

}  // namespace

int Panel::attach(sd_bus* bus) {
    return sd_bus_add_object_vtable(bus, nullptr, kPath, kInterface, kTable, this);
}

void Panel::publish(sd_bus* bus, uint32_t changes) {
    emit_changed(bus, kPath, kInterface, kProperties, changes);
}

}  // namespace nuvio::host
