#include "diagnostics/self_check.h"

#include <avahi-client/client.h>
#include <avahi-common/error.h>
#include <avahi-common/simple-watch.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <string_view>
#include <utility>

#include "common/environment.h"
#include "common/json/json.h"
#include "common/number.h"
#include "common/released_by.h"
#include "common/unique_fd.h"
#include "common/utf8.h"
#include "diagnostics/finding.h"
#include "diagnostics/port_check.h"
#include "diagnostics/sound_check.h"
#include "media/sink/alsa/alsa_utilities.h"
#include "platform/Environment.h"
#include "utility/environment_item.h"
#include "utility/log_delegate.h"

namespace {

using namespace android;

constexpr char kSettings[] = "settings";
constexpr char kBus[] = "bus";
constexpr char kAvahi[] = "avahi";

// ---- Settings -------------------------------------------------------------------------------

Finding check_settings() {
    if (std::string faults = env_item(kConfigurationFaults); !faults.empty()) {
        std::ranges::replace(faults, '\n', ';');
        return bad(kSettings, faults);
    }
    if (nuvio::leading_number(env_item(kFeatureNuvioConnect)) == 0) {
        return bad(kSettings, std::string("the service is off: set ") + kFeatureNuvioConnect +
                                  " = 1 in the settings file");
    }
    for (const char* key : {KFeatureNuvioConnectApp_id, KFeatureNuvioConnectApp_secret}) {
        if (env_item(key).empty()) {
            return bad(kSettings, std::string(key) +
                                      " is not set: put in what the streaming service gave you");
        }
    }
    const std::string port = env_item(KFeatureNuvioConnectHttpPort, kDefaultHttpPort);
    const auto number = nuvio::to_number<uint16_t>(port);
    if (!number || *number == 0) {
        return bad(kSettings, std::string(KFeatureNuvioConnectHttpPort) + " = " + port +
                                  " is no port: set a number from 1 to 65535");
    }
    Finding finding = check_port(kSettings, *number);
    finding.text.insert(0, finding.ok ? "on, application id and secret are set, HTTP "
                                      : std::string(KFeatureNuvioConnectHttpPort) + ": ");
    return finding;
}

// ---- Bus and Avahi --------------------------------------------------------------------------

// Of "unix:path=/run/dbus/system_bus_socket,guid=..." the path; empty for a bus of another kind.
std::string system_bus_socket() {
    constexpr std::string_view kPath = "unix:path=";
    const std::string set =
        nuvio::environment_text("DBUS_SYSTEM_BUS_ADDRESS", "unix:path=/run/dbus/system_bus_socket");
    const std::string_view address = set;
    return std::string(
        address.starts_with(kPath)
            ? address.substr(kPath.size(), address.find_first_of(",;") - kPath.size())
            : std::string_view());
}

Finding check_bus() {
    const std::string path = system_bus_socket();
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.empty() || path.size() >= sizeof address.sun_path) {
        return good(kBus, "the system bus is not one that can be looked at");
    }
    path.copy(address.sun_path, path.size());
    const nuvio::UniqueFd bus(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    const int error =
        connect(bus.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0
            ? 0
            : errno;
    if (error != 0) {
        return bad(kBus, path + ": " + std::strerror(error) +
                             ": no system bus, so no controller finds this device: install dbus, "
                             "or 'systemctl start dbus'");
    }
    return good(kBus, "the system bus answers at " + path);
}

Finding check_avahi() {
    const std::unique_ptr<AvahiSimplePoll, nuvio::ReleasedBy<avahi_simple_poll_free>> poll(
        avahi_simple_poll_new());
    int error = AVAHI_ERR_NO_MEMORY;
    const auto ignore = [](AvahiClient*, AvahiClientState, void*) {};
    const std::unique_ptr<AvahiClient, nuvio::ReleasedBy<avahi_client_free>> client(
        poll == nullptr ? nullptr
                        : avahi_client_new(avahi_simple_poll_get(poll.get()), AvahiClientFlags{},
                                           ignore, nullptr, &error));
    if (client == nullptr) {
        return bad(kAvahi, std::string(avahi_strerror(error)) +
                               ", so no controller finds this device: install avahi-daemon, or "
                               "'systemctl start avahi-daemon'");
    }
    const char* host = avahi_client_get_host_name_fqdn(client.get());
    const char* version = avahi_client_get_version_string(client.get());
    return good(kAvahi, std::string(version == nullptr ? "the daemon" : version) + " announces " +
                            (host == nullptr ? "this machine" : host));
}

constexpr std::array kChecks = {check_settings, check_output, check_mixer, check_bus, check_avahi};

// The findings say it all.
void be_quiet() {
    silence_alsa();
    log_silence();
}

const char* word_for(const Finding& finding) {
    if (finding.is_doubtful) {
        return "warn";
    }
    return finding.ok ? "ok" : "FAIL";
}

bool report(const Finding& finding) {
    std::printf("%-4s  %-8s  %s\n", word_for(finding), finding.subject,
                nuvio::printable(finding.text).c_str());
    std::fflush(stdout);  // the next check may hang
    return finding.ok;
}

}  // namespace

int run_self_check() {
    be_quiet();
    const auto failed =
        std::ranges::count_if(kChecks, [](Finding (*check)()) { return !report(check()); });
    return failed == 0 ? EXIT_SUCCESS : EXIT_FAILURE;
}

int run_self_check_for_programs() {
    be_quiet();
    nuvio::JsonPtr checks = nuvio::new_array();
    bool ok = true;
    for (Finding (*check)() : kChecks) {
        const Finding finding = check();
        ok = ok && finding.ok;
        nuvio::JsonPtr entry = nuvio::new_object();
        nuvio::add(entry.get(), "subject", finding.subject);
        nuvio::add(entry.get(), "ok", finding.ok);
        nuvio::add(entry.get(), "text", nuvio::printable(finding.text));
        nuvio::append(checks.get(), std::move(entry));
    }
    const nuvio::JsonPtr answer = nuvio::new_object();
    nuvio::add(answer.get(), "checks", std::move(checks));
    nuvio::add(answer.get(), "ok", ok);
    const std::string text = nuvio::print_json(answer.get());
    return std::puts(text.c_str()) >= 0 && ok ? EXIT_SUCCESS : EXIT_FAILURE;
}
