#include "configuration/settings.h"

#include <syslog.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <iterator>
#include <system_error>
#include <utility>

#include "base/text.h"
#include "common/environment.h"
#include "common/files/files.h"
#include "common/number.h"
#include "common/text.h"
#include "platform/Environment.h"

namespace nuvio::host {

namespace {

constexpr char kDefaultPath[] = "/etc/nuvio-connect/settings.conf";
constexpr size_t kMaxProblemsLogged = 16;

// Why a value is not what its key asks for; null when it is. An empty value counts as not set.
using Checker = const char* (*)(std::string_view value);

const char* check_any(std::string_view) {
    return nullptr;
}
const char* check_number(std::string_view value) {
    return to_number<int>(value) ? nullptr : "not a whole number";
}
const char* check_port(std::string_view value) {
    return to_number<uint16_t>(value).value_or(0) != 0 ? nullptr : "not a port from 1 to 65535";
}
const char* check_percent(std::string_view value) {
    return to_percent(value) ? nullptr : "not a number from 0 to 100";
}
const char* check_folder(std::string_view value) {
    return value.starts_with('/') ? nullptr : "not an absolute path";
}
const char* check_hook(std::string_view value) {
    return value.starts_with('/') || is_unit_name(value)
               ? nullptr
               : "neither a command with an absolute path nor a service's or target's name";
}
const char* check_delay(std::string_view value) {
    constexpr uint16_t kLongest = 3600;
    return to_number<uint16_t>(value).value_or(kLongest + 1) <= kLongest
               ? nullptr
               : "not a number of seconds from 0 to 3600";
}
const char* check_bus(std::string_view value) {
    constexpr std::array<std::string_view, 4> kWords = {"auto", "session", "system", "none"};
    const bool known = std::find(kWords.begin(), kWords.end(), value) != kWords.end();
    return known || value.find(':') != value.npos
               ? nullptr
               : "neither auto, session, system or none nor an address";
}
const char* check_rates(std::string_view value) {
    constexpr size_t kMaxBytes = 63;
    if (value.size() > kMaxBytes) {
        return "longer than 63 characters";
    }
    while (!value.empty()) {
        const size_t end = std::min(value.find(','), value.size());
        if (to_number<int>(trim(value.substr(0, end))).value_or(0) <= 0) {
            return "not sample rates in Hz, separated by commas";
        }
        value.remove_prefix(std::min(end + 1, value.size()));
    }
    return nullptr;
}

const char* check_loudness(std::string_view value) {
    return value == "off" || value == "track" || value == "album" ? nullptr
                                                                  : "neither off, track nor album";
}

const char* check_verify(std::string_view value) {
    return value == "cd" || value == "all" ? nullptr : "neither cd nor all";
}

struct KnownKey {
    std::string_view key;
    Checker check;
};
constexpr std::array<KnownKey, 32> kKnownKeys = {{
    {kFeatureNuvioConnect, check_number},
    {KFeatureNuvioConnectLog, check_number},
    {KFeatureNuvioConnectHttpPort, check_port},
    {KFeatureNuvioConnectHttpNames, check_any},
    {KFeatureNuvioConnectApp_id, check_any},
    {KFeatureNuvioConnectApp_secret, check_any},
    {KFeatureNuvioConnectVolume_Element, check_any},
    {KFeatureNuvioConnectVolume_Device, check_any},
    {kALSAOutputDeviceName, check_any},
    {kOutputFS, check_rates},
    {kHostAllowLoopback, check_number},
    {kHostFriendlyName, check_any},
    {kHostManufacturer, check_any},
    {kHostModel, check_any},
    {kHostStateDir, check_folder},
    {kHostBus, check_bus},
    {kHostBusMessages, check_number},
    {kHostInitialVolume, check_percent},
    {kHostMetricsSocket, check_folder},
    {kHostHookPlaying, check_hook},
    {kHostHookPaused, check_hook},
    {kHostHookStopped, check_hook},
    {kHostHookVolume, check_hook},
    {kHostHookSession, check_hook},
    {kHostHookOffDelay, check_delay},
    {kLocalMusicFolders, check_folder},
    {kLocalReadAhead, check_number},
    {kLocalNetworkPatience, check_number},
    {kLocalAuthorities, check_folder},
    {kLocalConvert, check_number},
    {kLocalLoudness, check_loudness},
    {kLocalVerify, check_verify},
}};

const KnownKey* find_key(std::string_view key) {
    const auto* found = std::find_if(kKnownKeys.begin(), kKnownKeys.end(),
                                     [key](const KnownKey& known) { return known.key == key; });
    return found == kKnownKeys.end() ? nullptr : found;
}

bool is_key(std::string_view text) {
    const auto allowed = [](char c) {
        return (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '.' || c == '_';
    };
    return !text.empty() && text.size() <= 64 && std::all_of(text.begin(), text.end(), allowed);
}

// Why the line cannot be taken; null when key and value are good.
const char* syntax_fault_of(bool has_equals, std::string_view key, std::string_view value) {
    if (!has_equals) {
        return "no '=' in it";
    }
    if (!is_key(key)) {
        return "the key may hold only a-z, 0-9, '.' and '_', up to 64 of them";
    }
    if (value.size() > kMaxValueBytes) {
        return "the value is longer than 1024 bytes";
    }
    if (!is_printable_utf8(value)) {
        return "the value is not plain UTF-8 text";
    }
    return nullptr;
}

void parse_line(std::string_view line, size_t number, ParsedSettings& result) {
    line = trim(line);
    if (line.empty() || line.front() == '#') {
        return;
    }
    const size_t equals = line.find('=');
    const std::string_view key = trim(line.substr(0, equals));
    const std::string_view value =
        equals == std::string_view::npos ? std::string_view() : trim(line.substr(equals + 1));
    if (const char* fault = syntax_fault_of(equals != std::string_view::npos, key, value)) {
        result.problems.push_back({number, fault});
        return;
    }
    result.values.insert_or_assign(std::string(key), std::string(value));
    result.lines.insert_or_assign(std::string(key), number);
}

// Why the value stands for nothing, or not for what was meant; empty when it is good.
std::string fault_of(const std::string& key, const std::string& value) {
    const KnownKey* known = find_key(key);
    if (known == nullptr) {
        return "nothing is known by the key " + key;
    }
    const char* why = value.empty() ? nullptr : known->check(value);
    return why == nullptr ? std::string() : key + " = " + value + ": " + why;
}

// In the order of their lines: those that are left out, and what is wrong with the others.
std::vector<SettingsProblem> find_faults(const ParsedSettings& parsed) {
    std::vector<SettingsProblem> faults;
    faults.reserve(parsed.problems.size());
    for (const SettingsProblem& problem : parsed.problems) {
        faults.push_back({problem.line, "line ignored: " + problem.text});
    }
    for (const auto& [key, value] : parsed.values) {
        if (std::string fault = fault_of(key, value); !fault.empty()) {
            faults.push_back({parsed.lines.find(key)->second, std::move(fault)});
        }
    }
    std::ranges::sort(faults, {}, &SettingsProblem::line);
    return faults;
}

// A line each, of many the first few and their number.
std::vector<std::string> describe(const std::string& path,
                                  const std::vector<SettingsProblem>& faults) {
    std::vector<std::string> lines;
    const size_t shown = std::min(faults.size(), kMaxProblemsLogged);
    lines.reserve(shown + 1);
    for (size_t i = 0; i < shown; ++i) {
        lines.push_back(path + ":" + std::to_string(faults[i].line) + ": " + faults[i].text);
    }
    if (faults.size() > shown) {
        lines.push_back(path + ": " + std::to_string(faults.size() - shown) + " more faults");
    }
    return lines;
}

}  // namespace

std::string settings_path() {
    return environment_text("NUVIO_SETTINGS", kDefaultPath);
}

ParsedSettings parse_settings(std::string_view text) {
    ParsedSettings result;
    if (text.starts_with("\xEF\xBB\xBF")) {
        text.remove_prefix(3);
    }
    for (size_t number = 1; !text.empty(); ++number) {
        const size_t end = text.find('\n');
        parse_line(text.substr(0, end), number, result);
        text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
    }
    return result;
}

Settings Settings::load() {
    const std::string path = settings_path();
    const FileText file = read_file(path, kMaxSettingsBytes);
    Settings settings;
    if (file.error != 0) {
        settings.m_error = "cannot read the settings in " + path + ": " +
                           std::generic_category().message(file.error);
        settings.m_values.emplace(kFeatureNuvioConnect, "1");
        settings.tell({settings.m_error});
        return settings;
    }
    std::vector<std::string> faults;
    if (file.cut) {
        faults.push_back(path + " is larger than " + std::to_string(kMaxSettingsBytes) +
                         " bytes, the rest is ignored");
    }
    ParsedSettings parsed = parse_settings(file.whole_lines());
    std::ranges::move(describe(path, find_faults(parsed)), std::back_inserter(faults));
    settings.m_values = std::move(parsed.values);
    settings.tell(faults);
    return settings;
}

void Settings::tell(const std::vector<std::string>& faults) {
    std::string all;
    for (const std::string& fault : faults) {
        syslog(LOG_ERR, "nuvio-host: %s", fault.c_str());
        all += (all.empty() ? "" : "\n") + fault;
    }
    m_values.insert_or_assign(kConfigurationFaults, std::move(all));
}

const std::string& Settings::get(std::string_view key) const {
    // Never destroyed: the hooks' thread asks until the last exit handler of the host.
    static const auto* const unset = new std::string();
    const auto found = m_values.find(key);
    return found == m_values.end() ? *unset : found->second;
}

bool Settings::is_on(std::string_view key) const {
    return to_number<int>(get(key)).value_or(0) != 0;
}

}  // namespace nuvio::host
