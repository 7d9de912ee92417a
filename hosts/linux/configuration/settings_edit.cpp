#include "configuration/settings_edit.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <system_error>

#include "base/text.h"
#include "common/environment.h"
#include "common/files/files.h"
#include "common/module.h"
#include "configuration/settings.h"

namespace nuvio::host {

namespace {

namespace fs = std::filesystem;

// What a program finds that is told nothing.
std::string stock_alsa_configuration() {
    return environment_text("ALSA_CONFIG_DIR", "/usr/share/alsa") + "/alsa.conf";
}

// In a build tree, else where it is installed.
fs::path server_periods_module() {
    constexpr char kModule[] = "nuvio-connect/server_periods.so";
    std::error_code failure;
    const fs::path beside = library_of_build(kModule);
    return fs::exists(beside, failure) ? beside : fs::path(NUVIO_LIBRARIES) / kModule;
}

fs::path shared_alsa_path() {
    return fs::path(settings_path()).replace_filename("alsa.conf");
}

// Of each of several devices its own: settings.conf's is alsa.conf, kitchen.conf's
// kitchen.alsa.conf.
fs::path alsa_path() {
    const fs::path settings = settings_path();
    return settings.stem() == "settings" ? shared_alsa_path()
                                         : fs::path(settings).replace_extension(".alsa.conf");
}

struct Line {
    std::string text;  // with its end
    bool is_example = false;
    std::string key;  // empty: a comment, a blank, a line that cannot be taken
};

Line line_of(std::string_view text) {
    std::string_view rest = trim(text);
    const bool is_example = rest.starts_with('#');
    rest.remove_prefix(is_example ? 1 : 0);
    const size_t equals = rest.find('=');
    const std::string_view key =
        equals == std::string_view::npos ? std::string_view() : trim(rest.substr(0, equals));
    return {std::string(text), is_example, std::string(key)};
}

std::vector<Line> lines_of(std::string_view text) {
    std::vector<Line> lines;
    while (!text.empty()) {
        const size_t end = text.find('\n');
        const size_t length = end == std::string_view::npos ? text.size() : end + 1;
        lines.push_back(line_of(text.substr(0, length)));
        text.remove_prefix(length);
    }
    if (!lines.empty() && !lines.back().text.ends_with('\n')) {
        lines.back().text += '\n';
    }
    return lines;
}

void put(std::vector<Line>& lines, const std::string& key, const std::string& value) {
    const auto last = [&](bool is_example) {
        size_t found = lines.size();
        for (size_t at = 0; at < lines.size(); ++at) {
            if (lines[at].is_example == is_example && lines[at].key == key) {
                found = at;
            }
        }
        return found;
    };
    const Line line{.text = key + " = " + value + "\n", .is_example = false, .key = key};
    if (const size_t now = last(false); now < lines.size()) {
        lines[now] = line;
        return;
    }
    const size_t example = last(true);
    const size_t place = example < lines.size() ? example + 1 : lines.size();
    lines.insert(lines.begin() + static_cast<std::ptrdiff_t>(place), line);
}

// A line end in a value would be a setting of its writer's choice: the name of a mixer element,
// say, is its device's.
bool is_writable(const SettingsItems& items, std::string& told) {
    for (const auto& [key, value] : items) {
        if (!is_printable_utf8(value)) {
            told = key + ": not a text that a setting can hold";
            return false;
        }
    }
    return true;
}

bool replaced(const fs::path& path, std::string_view text, std::string& told) {
    const int error = replace_file(path, text);
    if (error == 0) {
        return true;
    }
    told = path.string() + ": " + std::generic_category().message(error) +
           (error == EACCES || error == EPERM ? ": run as root" : "");
    return false;
}

// A file as it was, while it is replaced: to put it back takes no room on the disk.
class Former {
  public:
    explicit Former(const fs::path& path)
        : m_path(path), m_kept(path.string() + ".old"), m_was_there(fs::exists(path, m_failure)) {
        fs::remove(m_kept, m_failure);  // what a power cut has left
        fs::create_hard_link(m_path, m_kept, m_failure);
        m_is_kept = !m_failure;
    }
    ~Former() { fs::remove(m_kept, m_failure); }
    Former(const Former&) = delete;
    Former& operator=(const Former&) = delete;

    // On a file system without links the new one stays.
    void put_back() {
        if (m_is_kept) {
            fs::rename(m_kept, m_path, m_failure);
        } else if (!m_was_there) {
            fs::remove(m_path, m_failure);
        }
    }

  private:
    const fs::path m_path, m_kept;
    std::error_code m_failure;
    const bool m_was_there;
    bool m_is_kept = false;
};

}  // namespace

std::string edit_settings(std::string_view text, const SettingsItems& items) {
    std::vector<Line> lines = lines_of(text);
    for (const auto& [key, value] : items) {
        put(lines, key, value);
    }
    std::string edited;
    for (const Line& line : lines) {
        edited += line.text;
    }
    return edited;
}

bool change_settings(const SettingsItems& items, std::string_view alsa_configuration,
                     std::string& told) {
    if (!is_writable(items, told)) {
        return false;
    }
    std::error_code failure;
    fs::path path = fs::canonical(settings_path(), failure);  // not the link to it
    path = failure ? fs::path(settings_path()) : path;
    const FileText file = read_file(path, kMaxSettingsBytes);
    if (file.cut || (file.error != 0 && file.error != ENOENT)) {
        told = path.string() + ": " +
               (file.cut ? "too large" : std::generic_category().message(file.error));
        return false;
    }
    // The output first: settings that name one which is not there yet would be worse.
    Former former(alsa_path());
    if (!replaced(alsa_path(), alsa_configuration, told) ||
        !replaced(path, edit_settings(file.text, items), told)) {
        former.put_back();
        return false;
    }
    ::chmod(alsa_path().c_str(), 0644);  // the service's account reads it, whatever root's mask is
    told = path.string() + ", " + alsa_path().string();
    return true;
}

void use_alsa_configuration(const std::string& output) {
    const std::string before =
        environment_text("ALSA_CONFIG_PATH", stock_alsa_configuration().c_str());
    const std::string pcm = output.empty() ? "default" : output.substr(0, output.find(':'));
    setenv("NUVIO_ALSA_OUTPUT", pcm.c_str(), 1);  // without its arguments
    std::error_code failure;
    fs::path path = alsa_path();
    // Several devices had one for all of them.
    path = fs::is_regular_file(path, failure) ? path : shared_alsa_path();
    if (!fs::is_regular_file(path, failure)) {
        const fs::path module = server_periods_module();
        path = fs::path(module).replace_extension(".conf");
        // A file that is missing would keep ALSA from opening anything.
        for (const fs::path& needed :
             {fs::path(before.substr(0, before.find(':'))), module, path}) {
            if (!fs::is_regular_file(needed, failure)) {
                return;
            }
        }
    }
    if (before.find(path.string()) == std::string::npos) {
        setenv("ALSA_CONFIG_PATH", (before + ":" + path.string()).c_str(), 1);
    }
}

}  // namespace nuvio::host
