// The settings file: the device's configuration items, one "key = value" a line.
//
//   # a comment, on a line of its own
//   feature.nuvio_connect = 1
//
// Blanks around key and value are dropped; everything else behind the first '=' belongs to the
// value. A later line with the same key replaces an earlier one.
#pragma once

#include <cstddef>
#include <map>
#include <string>
#include <string_view>
#include <vector>

namespace nuvio::host {

// Keys of the host's own; those of the service are in platform/Environment.h.
inline constexpr char kHostAllowLoopback[] = "host.allow_loopback";  // number, not 0: counts
inline constexpr char kHostFriendlyName[] = "host.friendly_name";
inline constexpr char kHostManufacturer[] = "host.manufacturer";
inline constexpr char kHostModel[] = "host.model";
inline constexpr char kHostStateDir[] = "host.state_dir";
inline constexpr char kHostBus[] = "host.bus";  // auto, session, system, none or an address
inline constexpr char kHostBusMessages[] = "host.bus_messages";      // number, not 0: raw ones too
inline constexpr char kHostMetricsSocket[] = "host.metrics_socket";  // path; none: no metrics
inline constexpr char kHostInitialVolume[] = "host.initial_volume";  // percent
// Commands or units that follow the device, and after how many seconds what goes off does.
inline constexpr char kHostHookPlaying[] = "host.hook.playing";
inline constexpr char kHostHookPaused[] = "host.hook.paused";
inline constexpr char kHostHookStopped[] = "host.hook.stopped";
inline constexpr char kHostHookVolume[] = "host.hook.volume";
inline constexpr char kHostHookSession[] = "host.hook.session";
inline constexpr char kHostHookOffDelay[] = "host.hook.off_delay";
// Absolute paths with colons between: where the local core's content may lie.
inline constexpr char kLocalMusicFolders[] = "local.music_folders";
// The local core's content over the network: what is kept in memory of each track (KiB), after how
// many seconds without a byte it is passed over, a file of authorities in the place of the
// system's.
inline constexpr char kLocalReadAhead[] = "local.read_ahead";
inline constexpr char kLocalNetworkPatience[] = "local.network_patience";
inline constexpr char kLocalAuthorities[] = "local.authorities";
// Number, 0: tracks that the output does not take are passed over, not converted.
inline constexpr char kLocalConvert[] = "local.convert";
// "off", "track" or "album": by whose tags tracks are made equally loud.
inline constexpr char kLocalLoudness[] = "local.loudness";
// "cd" or "all": of which quality tracks are verified.
inline constexpr char kLocalVerify[] = "local.verify";

inline constexpr size_t kMaxSettingsBytes = size_t{64} * 1024;
inline constexpr size_t kMaxValueBytes = 1024;

// The environment variable NUVIO_SETTINGS, else /etc/nuvio-connect/settings.conf.
std::string settings_path();

struct SettingsProblem {
    size_t line;  // from 1; 0 for the file as a whole
    std::string text;
};

struct ParsedSettings {
    std::map<std::string, std::string, std::less<>> values;
    std::map<std::string, size_t, std::less<>> lines;  // from 1, of each value
    std::vector<SettingsProblem> problems;             // lines that were left out, in order
};

// Takes the lines apart. Pure; takes any bytes of any length.
ParsedSettings parse_settings(std::string_view text);

// What a settings file said. Does not change once loaded, so any thread may read it.
class Settings {
  public:
    Settings() = default;
    explicit Settings(ParsedSettings parsed) : m_values(std::move(parsed.values)) {}

    // Why the file could not be read; empty when it was.
    const std::string& error() const { return m_error; }

    // Reads the file named in the environment variable NUVIO_SETTINGS, else
    // /etc/nuvio-connect/settings.conf. A file that cannot be read leaves every item unset but the
    // service's switch, which nobody has turned off: the start then fails and says why. A value
    // that is not what its key asks for is kept, as its reader may make sense of it. Each fault,
    // a key that nobody knows among them, is one line in the system log and of the item
    // kConfigurationFaults (of many, the first few and their number).
    static Settings load();

    // The item's value; empty when it is not set.
    const std::string& get(std::string_view key) const;
    // True when the item's value is a number other than 0.
    bool is_on(std::string_view key) const;

  private:
    void tell(const std::vector<std::string>& faults);

    std::map<std::string, std::string, std::less<>> m_values;
    std::string m_error;
};

}  // namespace nuvio::host
