#include "diagnostics/self_check.h"

#include <avahi-client/client.h>
#include <avahi-common/error.h>
#include <avahi-common/simple-watch.h>
#include <sys/epoll.h>
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
#include <vector>

#include "common/number.h"
#include "media/sink/alsa/alsa_utilities.h"
#include "platform/Environment.h"
#include "utility/environment_item.h"

namespace {

using namespace android;

constexpr char kSettings[] = "settings";
constexpr char kOutput[] = "output";
constexpr char kMixer[] = "mixer";
constexpr char kBus[] = "bus";
constexpr char kAvahi[] = "avahi";

struct Finding {
    const char* subject;
    bool ok;
    std::string text;  // what there is, or what is wrong and what to do
};

Finding good(const char* subject, std::string text) {
    return {subject, true, std::move(text)};
}

Finding bad(const char* subject, std::string text) {
    return {subject, false, std::move(text)};
}

std::string quoted(const std::string& name) {
    return "'" + name + "'";
}

// ---- Settings -------------------------------------------------------------------------------

Finding checkSettings() {
    if (nuvio::leading_number(envItem(kFeatureNuvioConnect)) == 0) {
        return bad(kSettings, std::string("the service is off: set ") + kFeatureNuvioConnect +
                                  " = 1 in the settings file");
    }
    for (const char* key : {KFeatureNuvioConnectApp_id, KFeatureNuvioConnectApp_secret}) {
        if (envItem(key).empty()) {
            return bad(kSettings, std::string(key) +
                                      " is not set: put in what the streaming service gave you");
        }
    }
    const std::string port = envItem(KFeatureNuvioConnectHttpPort, kDefaultHttpPort);
    const auto number = nuvio::to_number<uint16_t>(port);
    if (number.value_or(0) == 0) {
        return bad(kSettings, std::string(KFeatureNuvioConnectHttpPort) + " = " + port +
                                  " is no port: set a number from 1 to 65535");
    }
    return good(kSettings, "on, application id and secret are set, HTTP port " + port);
}

// ---- Output ---------------------------------------------------------------------------------

const char* adviceForOpening(int error) {
    switch (-error) {
        case EBUSY:
            return "another program plays on it ('fuser -v /dev/snd/*' says which): end that "
                   "one, or set a device that mixes";
        case EACCES:
        case EPERM:
            return "run as root or as a member of the group audio";
        default:
            return "set another one; 'nuvio-connect --list-devices' shows those there are";
    }
}

// Null when the PCM takes what every track may come as; else the first thing it refuses. Leaves
// the PCM set up.
const char* configure(snd_pcm_t* pcm) {
    constexpr unsigned kRate = 44100;
    constexpr unsigned kChannels = 2;
    const hw_params_ptr owner = new_hw_params();
    snd_pcm_hw_params_t* params = owner.get();
    unsigned rate = kRate;
    if (snd_pcm_hw_params_any(pcm, params) < 0) {
        return "any format";
    }
    if (snd_pcm_hw_params_set_access(pcm, params, SND_PCM_ACCESS_RW_INTERLEAVED) < 0) {
        return "interleaved frames";
    }
    if (snd_pcm_hw_params_set_rate_near(pcm, params, &rate, nullptr) < 0 || rate != kRate) {
        return "44100 Hz";
    }
    if (snd_pcm_hw_params_set_channels(pcm, params, kChannels) < 0) {
        return "two channels";
    }
    if (snd_pcm_hw_params_set_format(pcm, params, SND_PCM_FORMAT_S16_LE) < 0) {
        return "16 bit";
    }
    return snd_pcm_hw_params(pcm, params) < 0 ? "44100 Hz, 16 bit, two channels at once" : nullptr;
}

// What tracks of better quality find: "16 and 24 bit, up to 192000 Hz".
std::string capabilities(snd_pcm_t* pcm) {
    constexpr std::array kRates = {384000, 352800, 192000, 176400, 96000, 88200, 48000, 44100};
    const hw_params_ptr params = new_hw_params();
    if (snd_pcm_hw_params_any(pcm, params.get()) < 0) {
        return {};
    }
    const auto highest = std::ranges::find_if(kRates, [&](int rate) {
        return snd_pcm_hw_params_test_rate(pcm, params.get(), static_cast<unsigned>(rate), 0) == 0;
    });
    const bool has24Bit =
        snd_pcm_hw_params_test_format(pcm, params.get(), SND_PCM_FORMAT_S24_LE) == 0;
    return std::string(has24Bit ? "16 and 24 bit" : "16 bit") +
           (highest == kRates.end() ? "" : ", up to " + std::to_string(*highest) + " Hz");
}

// The service sleeps on the descriptors until there is room; some PCMs have none that can be
// waited for.
bool canBeWaitedFor(snd_pcm_t* pcm) {
    const int count = snd_pcm_poll_descriptors_count(pcm);
    if (count < 1) {
        return false;
    }
    std::vector<pollfd> descriptors(static_cast<size_t>(count));
    snd_pcm_poll_descriptors(pcm, descriptors.data(), static_cast<unsigned>(count));
    const int set = epoll_create1(EPOLL_CLOEXEC);
    const bool all = std::ranges::all_of(descriptors, [set](const pollfd& one) {
        epoll_event event{};
        event.events = EPOLLIN;
        return epoll_ctl(set, EPOLL_CTL_ADD, one.fd, &event) == 0 || errno == EEXIST;
    });
    close(set);
    return all;
}

Finding checkOutput() {
    const std::string device = envItem(kALSAOutputDeviceName, kDefaultOutputDevice);
    const std::string named = std::string(kALSAOutputDeviceName) + " " + quoted(device);
    snd_pcm_t* opened = nullptr;
    // Never waits for one that is in use.
    const int error =
        snd_pcm_open(&opened, device.c_str(), SND_PCM_STREAM_PLAYBACK, SND_PCM_NONBLOCK);
    if (error < 0) {
        return bad(kOutput, named + ": " + snd_strerror(error) + ": " + adviceForOpening(error));
    }
    const pcm_ptr pcm(opened);
    const std::string can = capabilities(pcm.get());
    if (const char* refused = configure(pcm.get())) {
        return bad(kOutput, named + " does not take " + refused + ": put 'plug:' before its name");
    }
    if (!canBeWaitedFor(pcm.get())) {
        return bad(kOutput, named + " cannot be waited for: set a device of a sound card");
    }
    return good(kOutput, named + ": " + can);
}

// ---- Mixer ----------------------------------------------------------------------------------

Finding checkMixer() {
    const std::string device = envItem(KFeatureNuvioConnectVolume_Device, kDefaultVolumeDevice);
    const std::string name = envItem(KFeatureNuvioConnectVolume_Element, kDefaultVolumeElement);
    const std::string choose = std::string(": set another ") + KFeatureNuvioConnectVolume_Element +
                               "; 'nuvio-connect --list-devices' shows those there are";
    mixer_ptr mixer;
    const int error = open_simple_mixer(mixer, device.c_str());
    if (error < 0) {
        return bad(kMixer, std::string(KFeatureNuvioConnectVolume_Device) + " " + quoted(device) +
                               ": " + snd_strerror(error) + ": set the card's name, such as hw:0");
    }
    const selem_id_ptr id = new_selem_id();
    snd_mixer_selem_id_set_name(id.get(), name.c_str());
    snd_mixer_elem_t* element = snd_mixer_find_selem(mixer.get(), id.get());
    const std::string named = quoted(name) + " of " + quoted(device);
    if (element == nullptr) {
        return bad(kMixer, "there is no element " + named + choose);
    }
    if (snd_mixer_selem_has_playback_volume(element) != 1 ||
        snd_mixer_selem_has_playback_switch(element) != 1) {
        return bad(kMixer, named + " has not both a volume and a switch" + choose);
    }
    return good(kMixer, named + " has a volume and a switch");
}

// ---- Bus and Avahi --------------------------------------------------------------------------

struct FreePoll {
    void operator()(AvahiSimplePoll* poll) const { avahi_simple_poll_free(poll); }
};
struct FreeClient {
    void operator()(AvahiClient* client) const { avahi_client_free(client); }
};

// Of "unix:path=/run/dbus/system_bus_socket,guid=..." the path; empty for a bus of another kind.
std::string systemBusSocket() {
    constexpr std::string_view kPath = "unix:path=";
    const char* set = std::getenv("DBUS_SYSTEM_BUS_ADDRESS");
    if (set == nullptr) {
        return "/run/dbus/system_bus_socket";
    }
    const std::string_view address = set;
    return std::string(
        address.starts_with(kPath)
            ? address.substr(kPath.size(), address.find_first_of(",;") - kPath.size())
            : std::string_view());
}

Finding checkBus() {
    const std::string path = systemBusSocket();
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.empty() || path.size() >= sizeof address.sun_path) {
        return good(kBus, "the system bus is not one that can be looked at");
    }
    path.copy(address.sun_path, path.size());
    const int bus = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const int error =
        connect(bus, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0 ? 0 : errno;
    close(bus);
    if (error != 0) {
        return bad(kBus, path + ": " + std::strerror(error) +
                             ": no system bus, so no controller finds this device: install dbus, "
                             "or 'systemctl start dbus'");
    }
    return good(kBus, "the system bus answers at " + path);
}

Finding checkAvahi() {
    const std::unique_ptr<AvahiSimplePoll, FreePoll> poll(avahi_simple_poll_new());
    int error = AVAHI_ERR_NO_MEMORY;
    const auto ignore = [](AvahiClient*, AvahiClientState, void*) {};
    const std::unique_ptr<AvahiClient, FreeClient> client(
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

bool report(const Finding& finding) {
    std::printf("%-4s  %-8s  %s\n", finding.ok ? "ok" : "FAIL", finding.subject,
                finding.text.c_str());
    std::fflush(stdout);  // the next check may hang
    return finding.ok;
}

}  // namespace

int runSelfCheck() {
    silence_alsa();  // the findings say it all
    constexpr std::array kChecks = {checkSettings, checkOutput, checkMixer, checkBus, checkAvahi};
    const auto failed =
        std::ranges::count_if(kChecks, [](Finding (*check)()) { return !report(check()); });
    return failed == 0 ? EXIT_SUCCESS : EXIT_FAILURE;
}
