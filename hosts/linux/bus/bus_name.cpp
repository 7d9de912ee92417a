#include "bus/bus_name.h"

#include <syslog.h>
#include <unistd.h>

#include <cstdint>
#include <string>

namespace nuvio::host {

namespace {

constexpr uint32_t kNameExists = 3;  // the bus's answer

std::string instance_name(const char* name) {
    return std::string(name) + ".instance" + std::to_string(::getpid());
}

const char* to_name(void* userdata) {
    return static_cast<const char*>(userdata);
}
void* to_userdata(const char* name) {
    return const_cast<char*>(name);
}

// True, after a log line, when the bus does not let this process have the name at all.
bool is_refused(sd_bus_message* answer, const char* name) {
    const sd_bus_error* error = sd_bus_message_get_error(answer);
    if (error == nullptr) {
        return false;
    }
    syslog(LOG_ERR, "nuvio-host: the bus does not give the name %s: %s", name,
           error->message == nullptr ? error->name : error->message);
    return true;
}

int on_instance_answer(sd_bus_message* answer, void* userdata, sd_bus_error*) {
    if (!is_refused(answer, to_name(userdata))) {
        syslog(LOG_INFO, "nuvio-host: %s is taken, this is %s", to_name(userdata),
               instance_name(to_name(userdata)).c_str());
    }
    return 0;
}

// The library writes a negative result into its debug log and goes on.
int on_answer(sd_bus_message* answer, void* userdata, sd_bus_error*) {
    uint32_t result = 0;
    if (is_refused(answer, to_name(userdata)) || sd_bus_message_read(answer, "u", &result) < 0 ||
        result != kNameExists) {
        return 0;
    }
    return sd_bus_request_name_async(sd_bus_message_get_bus(answer), nullptr,
                                     instance_name(to_name(userdata)).c_str(), 0,
                                     on_instance_answer, userdata);
}

}  // namespace

int request_bus_name(sd_bus* bus, const char* name) {
    return sd_bus_request_name_async(bus, nullptr, name, 0, on_answer, to_userdata(name));
}

}  // namespace nuvio::host
