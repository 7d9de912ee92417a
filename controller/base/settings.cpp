#include "controller/base/settings.h"

#include <algorithm>
#include <sstream>

#include "common/environment.h"
#include "common/number.h"

namespace nuvio::controller {

namespace {

using Setter = bool (*)(Settings&, const std::string& value);

struct Option {
    const char* name;
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

constexpr Option kOptions[] = {
    {"--music", "NUVIO_CONTROLLER_MUSIC", set_music},
    {"--port", "NUVIO_CONTROLLER_PORT", set_port},
    {"--address", "NUVIO_CONTROLLER_ADDRESS", set_text<&Settings::address>},
    {"--state", "NUVIO_CONTROLLER_STATE", set_text<&Settings::state_folder>},
    {"--password", "NUVIO_CONTROLLER_PASSWORD", set_text<&Settings::password>},
    {"--base", "NUVIO_CONTROLLER_BASE", set_base},
    {"--public-name", "NUVIO_CONTROLLER_PUBLIC_NAME", set_text<&Settings::public_name>},
};

// Where the service manager says, else where a person's programs keep such things.
std::string default_state_folder() {
    const std::string given = environment_text("STATE_DIRECTORY");
    const std::string state = environment_text("XDG_STATE_HOME");
    return !given.empty()  ? given
           : state.empty() ? environment_text("HOME") + "/.local/state/nuvio-connect-controller"
                           : state + "/nuvio-connect-controller";
}

// Several folders have colons between.
bool read_variable(const Option& option, Settings* settings) {
    const std::string value = environment_text(option.variable);
    if (option.set != set_music) {
        return value.empty() || option.set(*settings, value);
    }
    std::istringstream folders(value);
    for (std::string folder; std::getline(folders, folder, ':');) {
        if (!folder.empty()) {
            settings->music.push_back(folder);
        }
    }
    return true;
}

}  // namespace

bool read_settings(const std::vector<std::string>& words, Settings* settings,
                   std::string* failure) {
    settings->state_folder = default_state_folder();
    for (const Option& option : kOptions) {
        if (!read_variable(option, settings)) {
            *failure = std::string(option.variable) + ": not a value for it";
            return false;
        }
    }
    if (std::ranges::find(words, "--music") != words.end()) {
        settings->music.clear();
    }
    for (size_t i = 0; i < words.size(); i += 2) {
        const auto* option = std::ranges::find_if(
            kOptions, [&](const Option& each) { return each.name == words[i]; });
        if (option == std::end(kOptions)) {
            *failure = words[i] + ": no such option";
            return false;
        }
        if (i + 1 == words.size() || !option->set(*settings, words[i + 1])) {
            *failure = words[i] + ": not a value for it";
            return false;
        }
    }
    return true;
}

}  // namespace nuvio::controller
