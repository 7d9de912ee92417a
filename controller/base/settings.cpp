#include "controller/base/settings.h"

#include <cstdlib>
#include <sstream>
#include <utility>

#include "common/number.h"
#include "common/options/options.h"

namespace nuvio::controller {

namespace {

// An option, and the variable of the environment that counts where it is not given.
struct Setting {
    const char* name;
    const char* variable;
    const char* value;
    const char* text;
    bool (*set)(Settings& settings, const std::string& value);
};

bool add_music(Settings& settings, const std::string& value) {
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

constexpr Setting kSettings[] = {
    {"music", "NUVIO_CONTROLLER_MUSIC", "DIR",
     "offer the music below it; several times for several", add_music},
    {"port", "NUVIO_CONTROLLER_PORT", "PORT", "of page, content and channel (8090)", set_port},
    {"address", "NUVIO_CONTROLLER_ADDRESS", "ADDRESS", "listen on this IPv4 address only",
     set_text<&Settings::address>},
    {"state", "NUVIO_CONTROLLER_STATE", "DIR", "where the library and the sessions are kept",
     set_text<&Settings::state_folder>},
    {"password", "NUVIO_CONTROLLER_PASSWORD", "WORD", "page and commands ask for it",
     set_text<&Settings::password>},
    {"base", "NUVIO_CONTROLLER_BASE", "PATH", "where the page lies behind a proxy", set_base},
    {"public-name", "NUVIO_CONTROLLER_PUBLIC_NAME", "NAME", "the name that a TLS proxy goes by",
     set_text<&Settings::public_name>},
};

std::string variable(const char* name) {
    const char* value = std::getenv(name);
    return value != nullptr ? value : "";
}

// Where the service manager says, else where a person's programs keep such things.
std::string default_state_folder() {
    const std::string given = variable("STATE_DIRECTORY");
    const std::string state = variable("XDG_STATE_HOME");
    return !given.empty()  ? given
           : state.empty() ? variable("HOME") + "/.local/state/nuvio-connect-controller"
                           : state + "/nuvio-connect-controller";
}

// Several folders have colons between.
bool read_variable(const Setting& setting, Settings* settings) {
    const std::string value = variable(setting.variable);
    if (setting.set != add_music) {
        return value.empty() || setting.set(*settings, value);
    }
    std::istringstream folders(value);
    for (std::string folder; std::getline(folders, folder, ':');) {
        if (!folder.empty()) {
            settings->music.push_back(folder);
        }
    }
    return true;
}

CommandLine command_line(Settings* settings) {
    CommandLine line;
    line.program = "nuvio-connect-controller serve";
    line.head = "usage: nuvio-connect-controller serve --music DIR... [OPTIONS]\n\n";
    line.tail = "\nEach has a variable of the environment. See nuvio-connect-controller(1).\n";
    bool music_is_named = false;
    for (const Setting& setting : kSettings) {
        // The first folder named here takes the place of those of the environment.
        const auto take = [=](const std::string& value) mutable {
            if (setting.set == add_music && !std::exchange(music_is_named, true)) {
                settings->music.clear();
            }
            return setting.set(*settings, value);
        };
        line.options.push_back({setting.name, setting.value, setting.text, take});
    }
    return line;
}

}  // namespace

std::optional<int> read_settings(const std::vector<std::string>& words, Settings* settings) {
    settings->state_folder = default_state_folder();
    const CommandLine line = command_line(settings);
    for (const Setting& setting : kSettings) {
        if (!read_variable(setting, settings)) {
            return refuse_use(line.program, std::string("no value for it in ") + setting.variable);
        }
    }
    return parse_options(line, words);
}

}  // namespace nuvio::controller
