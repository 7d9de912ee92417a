#include "controller/command_line/direct.h"

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <ctime>
#include <filesystem>
#include <mutex>
#include <system_error>

#include "common/utf8.h"
#include "controller/base/token.h"
#include "controller/device/http_client.h"
#include "controller/device/offer.h"
#include "controller/discovery/discovery.h"

namespace nuvio::controller {

namespace {

constexpr std::chrono::seconds kPatience{5};
// All have answered when nothing more has come for so long.
constexpr std::chrono::milliseconds kSettled{700};
constexpr int64_t kSessionSeconds = int64_t{24} * 3600;

std::vector<FoundDevice> browse() {
    std::mutex mutex;
    std::condition_variable on_change;
    std::vector<FoundDevice> devices;
    int changes = 0;
    const Discovery discovery([&](const std::vector<FoundDevice>& found) {
        const std::scoped_lock lock(mutex);
        devices = found;
        ++changes;
        on_change.notify_all();
    });
    std::unique_lock lock(mutex);
    on_change.wait_for(lock, kPatience, [&] { return !devices.empty(); });
    int seen = 0;
    while (seen != changes) {
        seen = changes;
        on_change.wait_for(lock, kSettled, [&] { return seen != changes; });
    }
    return devices;
}

void show_found(const FoundDevice& device) {
    std::printf("%s\n", printable(device.name).c_str());
    for (const std::string& address : device.addresses) {
        std::printf("  address  %s port %d\n", address.c_str(), int{device.port});
    }
    for (const std::string& entry : device.txt) {
        std::printf("  TXT      %s\n", printable(entry).c_str());
    }
    for (const char* endpoint : {"get-display-info", "get-connect-info"}) {
        const HttpAnswer answer = ask_device(device, "GET", endpoint);
        std::printf("  %s  %s\n", endpoint,
                    answer.status == 200 ? printable(answer.body).c_str()
                    : answer.status == 0 ? ("no answer (" + answer.failure + ")").c_str()
                                         : ("answers " + std::to_string(answer.status)).c_str());
    }
}

}  // namespace

int find_devices() {
    const std::vector<FoundDevice> devices = browse();
    if (devices.empty()) {
        std::fprintf(stderr, "find: no device on the network\n");
        return 1;
    }
    std::ranges::for_each(devices, show_found);
    return 0;
}

int connect_device(const std::string& name, const std::string& what) {
    const std::vector<FoundDevice> devices = browse();
    const auto device = std::ranges::find(devices, name, &FoundDevice::name);
    if (device == devices.end()) {
        std::fprintf(stderr, "connect: no device '%s' on the network; found:\n", name.c_str());
        for (const FoundDevice& found : devices) {
            std::fprintf(stderr, "  %s\n", printable(found.name).c_str());
        }
        return 1;
    }
    std::error_code error;
    const std::string content = what.find("://") != std::string::npos
                                    ? what
                                    : std::filesystem::absolute(what, error).string();
    const std::string session = new_token();
    const HttpAnswer answer = ask_device(
        *device, "POST", "connect-to-nconnect",
        offer_body({session, content, "none", "local", std::time(nullptr) + kSessionSeconds}));
    if (answer.status != 200) {
        std::fprintf(stderr, "connect: %s\n",
                     answer.status == 0 ? answer.failure.c_str()
                                        : printable("the device refused: " + answer.body).c_str());
        return 1;
    }
    std::printf("%s: joined session %s\n", name.c_str(), session.c_str());
    return 0;
}

}  // namespace nuvio::controller
