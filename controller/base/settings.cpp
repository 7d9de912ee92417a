#include "controller/base/settings.h"

#include <algorithm>
#include <cerrno>
#include <iterator>
#include <sstream>
#include <string_view>

#include "common/environment.h"
#include "common/files/files.h"
#include "common/number.h"
#include "common/options/options.h"
#include "common/text.h"

namespace nuvio::controller {

namespace {

constexpr char kCredential[] = "nuvio-connect-controller.password";
constexpr size_t kMaxPassword = 1024;

using Setter = bool (*)(Settings&, const std::string& value);

struct Row {
    Option option;
    const char* variable;  // in the environment
    Setter set;
};

bool set_music(Settings& settings, const std::string& value) {
    settings.music.push_back(value);
    return !value.empty();
}

bool set_port(Settings& settings, const std::string& value) {
    settings.port = to_number<uint16_t>(value).value_or(0);
    return settings.port != 0;
}

// With a '/' before it and none behind it.
bool set_base(Settings& settings, const std::string& value) {
    settings.base = value;
    while (settings.base.ends_with('/')) {
        settings.base.pop_back();
    }
    return settings.base.empty() || settings.base.starts_with('/');
}

template <std::string Settings::*member>
bool set_text(Settings& settings, const std::string& value) {
    settings.*member = value;
    return !value.empty();
}

constexpr Row kRows[] = {
    {{"music", "DIR", "music below this folder is offered; may be given several times"},
     "NUVIO_CONTROLLER_MUSIC",
     set_music},
    {{"port", "PORT", "of page, content and channel (8090)"}, "NUVIO_CONTROLLER_PORT", set_port},
    {{"address", "ADDRESS", "listen on this one only"},
     "NUVIO_CONTROLLER_ADDRESS",
     set_text<&Settings::address>},
    {{"state", "DIR", "where the library, sessions and playlists are kept"},
     "NUVIO_CONTROLLER_STATE",
     set_text<&Settings::state_folder>},
    {{"password", "WORD", "page and commands ask for it"},
     "NUVIO_CONTROLLER_PASSWORD",
     set_text<&Settings::password>},
    {{"base", "PATH", "where the page lies behind a proxy: /music"},
     "NUVIO_CONTROLLER_BASE",
     set_base},
    {{"public-name", "NAME", "that a proxy goes by"},
     "NUVIO_CONTROLLER_PUBLIC_NAME",
     set_text<&Settings::public_name>},
};

std::vector<Option> options() {
    std::vector<Option> all;
    std::ranges::transform(kRows, std::back_inserter(all), &Row::option);
    return all;
}

// Where the service manager says, else where a person's programs keep such things.
std::string default_state_folder() {
    const std::string given = environment_text("STATE_DIRECTORY");
    const std::string state = environment_text("XDG_STATE_HOME");
    return !given.empty()  ? given
           : state.empty() ? environment_text("HOME") + "/.local/state/nuvio-connect-controller"
                           : state + "/nuvio-connect-controller";
}

// Several folders have colons between.
bool read_variable(const Row& row, Settings* settings) {
    const std::string value = environment_text(row.variable);
    if (row.set != set_music) {
        return value.empty() || row.set(*settings, value);
    }
    std::istringstream folders(value);
    for (std::string folder; std::getline(folders, folder, ':');) {
        if (!folder.empty()) {
            settings->music.push_back(folder);
        }
    }
    return true;
}

// What the service manager hands to this program alone. True where it has none.
bool read_credential(Settings* settings) {
    const std::string folder = environment_text("CREDENTIALS_DIRECTORY");
    if (folder.empty()) {
        return true;
    }
    const FileText file = read_file(folder + "/" + kCredential, kMaxPassword);
    settings->password = trim(file.text);
    return file.error == ENOENT || !settings->password.empty();
}

}  // namespace

bool read_settings(const std::vector<std::string>& words, Settings* settings,
                   std::string* failure) {
    settings->state_folder = default_state_folder();
    if (!read_credential(settings)) {
        *failure = std::string(kCredential) + ": no password in it";
        return false;
    }
    for (const Row& row : kRows) {
        if (!read_variable(row, settings)) {
            *failure = std::string(row.variable) + ": not a value for it";
            return false;
        }
    }
    const GivenOptions given = read_options(options(), words, Words::refused);
    *failure = given.failure;
    if (given.has("music")) {
        settings->music.clear();
    }
    for (const GivenOption& each : given.options) {
        const auto* const row = std::ranges::find_if(kRows, [&](const Row& candidate) {
            return std::string_view(candidate.option.name) == each.name;
        });
        if (failure->empty() && !row->set(*settings, each.value)) {
            *failure = "--" + std::string(each.name) + ": not a value for it";
        }
    }
    return failure->empty();
}

std::string describe_settings() {
    return describe_options(options());
}

}  // namespace nuvio::controller
