// Gathers the device's identity and settings into the array that the bridge is made from.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "platform/Kora.h"

namespace android {

// The kernel's text of the Wi-Fi interface's hardware address.
inline constexpr char kWifiAddressPath[] = "/sys/class/net/wlan0/address";

// What counts where an item is not set.
inline constexpr char kDefaultOutputDevice[] = "default";
inline constexpr char kDefaultHttpPort[] = "8000";
inline constexpr char kDefaultVolumeElement[] = "Master";
inline constexpr char kDefaultVolumeDevice[] = "default";

// The item's value, or `fallback` where it is empty or not set. Any thread.
std::string envItem(const char* key, const char* fallback = "");

// The device-info array, in the order of DeviceInfoIndex, defaults filled in. Nothing (one line
// logged) when the application id or secret is not set. Reads the platform and the file at
// `wifiAddressPath`; any one thread.
std::optional<std::vector<std::string>> gatherDeviceInfo(
    KORAHelper& kora, const char* wifiAddressPath = kWifiAddressPath);

}  // namespace android
