#include "configuration/state_store.h"

#include <syslog.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <system_error>
#include <utility>

#include "base/text.h"
#include "common/environment.h"
#include "common/files/files.h"
#include "configuration/device_name.h"
#include "platform/Kora.h"

namespace nuvio::host {

namespace {

bool is_volume(std::string_view text) {
    return to_percent(text).has_value();
}
bool is_mute(std::string_view text) {
    return to_muted(text).has_value();
}

struct Item {
    int id;
    const char* key;
    bool (*is_valid)(std::string_view text);
};

constexpr std::array<Item, 3> kItems = {{
    {android::KORA_DEVICE_NAME, "name", is_device_name},
    {android::KORA_VOLUME, "volume", is_volume},
    {android::KORA_MUTE, "mute", is_mute},
}};

const Item* find_item(int id) {
    for (const Item& item : kItems) {
        if (item.id == id) {
            return &item;
        }
    }
    return nullptr;
}

}  // namespace

std::string state_directory(const Settings& settings) {
    if (std::string folder = environment_text("NUVIO_STATE_DIR"); !folder.empty()) {
        return folder;
    }
    if (!settings.get(kHostStateDir).empty()) {
        return settings.get(kHostStateDir);
    }
    if (std::string folder = environment_text("STATE_DIRECTORY"); !folder.empty()) {
        return folder;
    }
    if (::geteuid() == 0) {
        return "/var/lib/nuvio-connect";
    }
    if (const std::string home = environment_text("XDG_STATE_HOME"); home.starts_with('/')) {
        return home + "/nuvio-connect";
    }
    return environment_text("HOME") + "/.local/state/nuvio-connect";
}

StateStore::StateStore(std::string folder) : m_path(std::move(folder) + "/state") {}

std::map<int, std::string> StateStore::load() {
    const FileText file = read_file(m_path, kMaxSettingsBytes);
    if (file.error != 0 && file.error != ENOENT && file.error != ENOTDIR) {
        syslog(LOG_ERR, "nuvio-host: cannot read the state in %s: %s", m_path.c_str(),
               std::generic_category().message(file.error).c_str());
        return {};
    }
    ParsedSettings parsed = parse_settings(file.whole_lines());
    std::map<int, std::string> values;
    size_t refused = parsed.problems.size();
    for (const Item& item : kItems) {
        const auto found = parsed.values.find(item.key);
        if (found == parsed.values.end()) {
            continue;
        }
        if (item.is_valid(found->second)) {
            values.emplace(item.id, std::move(found->second));
        } else {
            ++refused;
        }
    }
    if (refused != 0) {
        syslog(LOG_ERR, "nuvio-host: %s is damaged, %zu of its lines are ignored", m_path.c_str(),
               refused);
    }
    const std::lock_guard lock(m_mutex);
    m_values = values;
    m_due = false;
    return values;
}

bool StateStore::set(int id, const std::string& text) {
    const Item* item = find_item(id);
    if (item == nullptr || !item->is_valid(text)) {
        return false;
    }
    const std::lock_guard lock(m_mutex);
    std::string& held = m_values[id];
    if (held == text) {
        return false;
    }
    held = text;
    m_due = true;
    return true;
}

void StateStore::save() {
    std::string text;
    {
        const std::lock_guard lock(m_mutex);
        if (!m_due) {
            return;
        }
        m_due = false;
        for (const Item& item : kItems) {
            if (const auto found = m_values.find(item.id); found != m_values.end()) {
                text += std::string(item.key) + " = " + found->second + "\n";
            }
        }
    }
    const int error = replace_file(m_path, text);
    if (error == 0) {
        m_failed = false;
        return;
    }
    if (!std::exchange(m_failed, true)) {
        syslog(LOG_ERR, "nuvio-host: cannot keep the device's state in %s: %s", m_path.c_str(),
               std::generic_category().message(error).c_str());
    }
    const std::lock_guard lock(m_mutex);
    m_due = true;
}

}  // namespace nuvio::host
