#include "configuration/settings.h"

#include <syslog.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <system_error>

#include "base/files.h"
#include "base/text.h"
#include "common/number.h"
#include "platform/Environment.h"

namespace nuvio::host {

namespace {

constexpr char kDefaultPath[] = "/etc/nuvio-connect/settings.conf";
constexpr size_t kMaxProblemsLogged = 16;

constexpr std::array<std::string_view, 16> kKnownKeys = {
    kFeatureNuvioConnect,
    KFeatureNuvioConnectLog,
    KFeatureNuvioConnectHttpPort,
    KFeatureNuvioConnectApp_id,
    KFeatureNuvioConnectApp_secret,
    KFeatureNuvioConnectVolume_Element,
    KFeatureNuvioConnectVolume_Device,
    kALSAOutputDeviceName,
    kOutputFS,
    kHostAllowLoopback,
    kHostFriendlyName,
    kHostManufacturer,
    kHostModel,
    kHostStateDir,
    kHostBus,
    kHostInitialVolume,
};

bool is_key(std::string_view text) {
    const auto allowed = [](char c) {
        return (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '.' || c == '_';
    };
    return !text.empty() && text.size() <= 64 && std::all_of(text.begin(), text.end(), allowed);
}

// Why the line cannot be taken; null when key and value are good.
const char* fault_of(bool has_equals, std::string_view key, std::string_view value) {
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
    if (const char* fault = fault_of(equals != std::string_view::npos, key, value)) {
        result.problems.push_back({number, fault});
        return;
    }
    result.values.insert_or_assign(std::string(key), std::string(value));
}

void log_problems(const std::string& path, const std::vector<SettingsProblem>& problems) {
    const size_t shown = std::min(problems.size(), kMaxProblemsLogged);
    for (size_t i = 0; i < shown; ++i) {
        syslog(LOG_ERR, "nuvio-host: %s:%zu: line ignored: %s", path.c_str(), problems[i].line,
               problems[i].text.c_str());
    }
    if (problems.size() > shown) {
        syslog(LOG_ERR, "nuvio-host: %s: %zu more lines ignored", path.c_str(),
               problems.size() - shown);
    }
}

void log_unknown_keys(const std::string& path, const ParsedSettings& parsed) {
    size_t unknown = 0;
    for (const auto& [key, value] : parsed.values) {
        if (std::find(kKnownKeys.begin(), kKnownKeys.end(), key) == kKnownKeys.end() &&
            ++unknown <= kMaxProblemsLogged) {
            syslog(LOG_WARNING, "nuvio-host: %s: nothing is known by the key %s", path.c_str(),
                   key.c_str());
        }
    }
}

}  // namespace

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
    const char* named = std::getenv("NUVIO_SETTINGS");
    const std::string path = named != nullptr && *named != '\0' ? named : kDefaultPath;
    FileText file = read_file(path, kMaxSettingsBytes);
    if (file.error != 0) {
        syslog(LOG_ERR, "nuvio-host: cannot read the settings in %s: %s", path.c_str(),
               std::generic_category().message(file.error).c_str());
        return {};
    }
    if (file.cut) {
        syslog(LOG_ERR, "nuvio-host: %s is larger than %zu bytes, the rest is ignored",
               path.c_str(), kMaxSettingsBytes);
        // The cut may have left half a line, which could read as a wrong value.
        file.text.resize(file.text.rfind('\n') + 1);
    }
    ParsedSettings parsed = parse_settings(file.text);
    log_problems(path, parsed.problems);
    log_unknown_keys(path, parsed);
    return Settings(std::move(parsed));
}

const std::string& Settings::get(std::string_view key) const {
    static const std::string kUnset;
    const auto found = m_values.find(key);
    return found == m_values.end() ? kUnset : found->second;
}

bool Settings::is_on(std::string_view key) const {
    return to_number<int>(get(key)).value_or(0) != 0;
}

}  // namespace nuvio::host
