// Gathers the device's identity and settings into the array that the bridge is made from.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "platform/Kora.h"

namespace android {

// The kernel's text of the Wi-Fi interface's hardware address.
inline constexpr char kWifiAddressPath[] = "/sys/class/net/wlan0/address";

// The device-info array, in the order of DeviceInfoIndex, defaults filled in. Nothing (one line
// logged) when the application id or secret is not set. Reads the platform and the file at
// `wifiAddressPath`; any one thread.
std::optional<std::vector<std::string>> gatherDeviceInfo(
    KORAHelper& kora, const char* wifiAddressPath = kWifiAddressPath);

}  // namespace android
