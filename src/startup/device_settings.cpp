#include "startup/device_settings.h"

#include <syslog.h>

#include <algorithm>
#include <cstdlib>
#include <ctime>
#include <fstream>

#include "bridge/bridge.h"
#include "platform/Environment.h"
#include "utility/environment_item.h"

namespace android {
namespace {

constexpr size_t kMacAddressLength = 17;  // six pairs of digits, colons between

std::string orDefault(const std::string& value, const char* fallback) {
    return value.empty() ? fallback : value;
}

std::string readFriendlyName(KORAHelper& kora) {
    std::string name;
    kora.readRemoteMessage(KORA_DEVICE_NAME, name);
    if (name.empty()) {
        getFriendlyName(name);
    }
    return orDefault(name, "VantaSyncTR12");
}

// The platform's answer; `unknown` where it has none, `blank` where it answers with nothing.
std::string identity(bool (*get)(std::string&), const char* unknown, const char* blank) {
    std::string value;
    const bool known = get(value);
    return orDefault(value, known ? blank : unknown);
}

// The first line, read no further than shows that it is too long.
std::string readShortLine(const char* path, size_t longest) {
    std::ifstream file(path);
    std::string line;
    char character = 0;
    while (line.size() <= longest && file.get(character) && character != '\n') {
        line.push_back(character);
    }
    return line;
}

std::string readSerialNumber(const char* wifiAddressPath) {
    std::string address = readShortLine(wifiAddressPath, kMacAddressLength);
    if (address.size() != kMacAddressLength) {
        return {};
    }
    std::erase(address, ':');
    syslog(LOG_ERR, "NuvioKora: Nuvio sSerialNumber = %s \n", address.c_str());
    return address;
}

std::string randomSerialNumber() {
    std::srand(static_cast<unsigned>(std::time(nullptr)));
    return "Vanta_" + std::to_string(std::rand() % 10000);
}

}  // namespace

std::optional<std::vector<std::string>> gatherDeviceInfo(KORAHelper& kora,
                                                         const char* wifiAddressPath) {
    std::vector<std::string> info(DEVICE_INFO_COUNT);
    info[DEVICE_INFO_DEVICE_NAME] = readFriendlyName(kora);
    std::string serialNumber = readSerialNumber(wifiAddressPath);
    info[DEVICE_INFO_OUTPUT_DEVICE] = env_item(kALSAOutputDeviceName, kDefaultOutputDevice);
    info[DEVICE_INFO_MANUFACTURER] =
        identity(getManufacturer, "Vanta Wireless Technologies", "Vanta Wireless Technologies");
    info[DEVICE_INFO_MODEL] = identity(getModel, "VantaSync", "Alexa_Vanta");
    info[DEVICE_INFO_LOG_LEVEL] = env_item(KFeatureNuvioConnectLog);
    info[DEVICE_INFO_HTTP_PORT] = env_item(KFeatureNuvioConnectHttpPort, kDefaultHttpPort);
    info[DEVICE_INFO_APP_ID] = env_item(KFeatureNuvioConnectApp_id);
    info[DEVICE_INFO_APP_SECRET] = env_item(KFeatureNuvioConnectApp_secret);
    info[DEVICE_INFO_VOLUME_ELEMENT] =
        env_item(KFeatureNuvioConnectVolume_Element, kDefaultVolumeElement);
    info[DEVICE_INFO_VOLUME_DEVICE] =
        env_item(KFeatureNuvioConnectVolume_Device, kDefaultVolumeDevice);

    if (info[DEVICE_INFO_APP_ID].empty() || info[DEVICE_INFO_APP_SECRET].empty()) {
        syslog(LOG_ERR, "NuvioKora: APPID or Appsecret is empty");
        return std::nullopt;
    }
    if (serialNumber.empty()) {
        serialNumber = randomSerialNumber();
    }
    syslog(LOG_INFO, "NuvioKora: device sSerialNumber/MACID = %s", serialNumber.c_str());
    info[DEVICE_INFO_SERIAL_NUMBER] = std::move(serialNumber);
    syslog(LOG_INFO, "NuvioKora: output_device = %s\n", info[DEVICE_INFO_VOLUME_DEVICE].c_str());
    return info;
}

}  // namespace android
