#include "bus/bus_address.h"

#include <algorithm>
#include <string_view>

#include "common/environment.h"
#include "common/percent_encoding.h"

namespace nuvio::host {

namespace {

// Calls `take` with each piece between separators that is not empty.
template <typename Take>
void split(std::string_view text, char separator, Take take) {
    while (!text.empty()) {
        const size_t end = std::min(text.find(separator), text.size());
        if (end != 0) {
            take(text.substr(0, end));
        }
        text.remove_prefix(std::min(end + 1, text.size()));
    }
}

// The guid names one run of a bus; without it the next run at the same place is taken too.
BusAddress parse_one(std::string_view text) {
    constexpr std::string_view kUnix = "unix:";
    constexpr std::string_view kPath = "path=";
    constexpr std::string_view kGuid = "guid=";
    BusAddress address;
    const size_t colon = text.find(':');
    if (colon == std::string_view::npos) {
        return address;
    }
    address.text = text.substr(0, colon + 1);
    const bool is_unix = address.text == kUnix;
    const char* comma = "";
    split(text.substr(colon + 1), ',', [&](std::string_view pair) {
        if (pair.starts_with(kGuid)) {
            return;
        }
        if (is_unix && pair.starts_with(kPath)) {
            address.socket_path = percent_decode_leniently(pair.substr(kPath.size()));
        }
        address.text += comma;
        address.text += pair;
        comma = ",";
    });
    return address;
}

void append(std::vector<BusAddress>& addresses, std::string_view list) {
    split(list, ';', [&](std::string_view one) {
        BusAddress address = parse_one(one);
        if (!address.text.empty()) {
            addresses.push_back(std::move(address));
        }
    });
}

void append_session(std::vector<BusAddress>& addresses) {
    if (const std::string named = environment_text("DBUS_SESSION_BUS_ADDRESS"); !named.empty()) {
        append(addresses, named);
    } else if (const std::string folder = environment_text("XDG_RUNTIME_DIR"); !folder.empty()) {
        append(addresses, "unix:path=" + percent_encode(folder) + "/bus");
    }
}

void append_system(std::vector<BusAddress>& addresses) {
    const std::string named = environment_text("DBUS_SYSTEM_BUS_ADDRESS");
    append(addresses, named.empty() ? "unix:path=/run/dbus/system_bus_socket" : named);
}

}  // namespace

std::vector<BusAddress> bus_addresses(const std::string& choice) {
    std::vector<BusAddress> addresses;
    if (choice == "none") {
        return addresses;
    }
    if (choice.find(':') != std::string::npos) {
        append(addresses, choice);
        return addresses;
    }
    if (choice != "system") {
        append_session(addresses);
    }
    if (choice != "session") {
        append_system(addresses);
    }
    return addresses;
}

}  // namespace nuvio::host
