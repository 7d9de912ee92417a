#include "controller/command_line/command_line.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <numeric>
#include <span>

#include "common/json/json.h"
#include "common/options/options.h"
#include "common/utf8.h"
#include "controller/base/settings.h"
#include "controller/command_line/alarms.h"
#include "controller/command_line/arguments.h"
#include "controller/command_line/direct.h"
#include "controller/command_line/lists.h"
#include "controller/command_line/queue.h"
#include "controller/command_line/running.h"
#include "controller/device/http_client.h"

namespace nuvio::controller {

namespace {

using Arguments = std::vector<std::string>;
constexpr std::chrono::seconds kSoundPatience{100};

std::string why_gone(const cJSON* device) {
    const std::string failure = shown(device, "failure");
    return !bool_member(device, "present").value_or(false) ? "not on the network"
           : failure.empty()                               ? "does not answer any more"
                                                           : "can't be reached: " + failure;
}

// In the words of people, where the state's own name is not that.
std::string state_text(const cJSON* device) {
    const std::string state = shown(device, "state");
    const bool is_connected = bool_member(device, "connected").value_or(false);
    return state == "gone"     ? why_gone(device)
           : state == "asking" ? "is being reached"
           : state == "other"  ? "used by another controller"
           : state == "silent" ? is_connected ? "silent: it says that it plays, and gets no further"
                                              : "silent: its connection is expected back"
           : state == "asked"  ? "asked for " + shown(member(device, "asked"), "title")
           : state == "opening" ? "opens"
                                : state;
}

void show_device(const cJSON* device) {
    const cJSON* track = member(device, "track");
    std::string doing = state_text(device);
    if (track != nullptr) {
        doing += "  " + shown(track, "title");
        const std::string artist = shown(track, "artist");
        doing += (artist.empty() ? "" : " - " + artist) + "  " +
                 time_text(number_member(device, "position_ms").value_or(0)) + " / " +
                 time_text(number_member(track, "duration_ms").value_or(0));
    }
    if (const std::string problem = shown(device, "problem"); !problem.empty()) {
        doing += "  (" + problem + ")";
    }
    if (const auto volume = number_member(device, "volume")) {
        doing += "  volume " + std::to_string(*volume) +
                 (bool_member(device, "muted").value_or(false) ? " (muted)" : "");
    }
    if (const cJSON* const sleep = member(device, "sleep")) {
        const auto in_ms = number_member(sleep, "in_ms");
        doing += in_ms ? "  sleeps in " + time_text(*in_ms) : "  sleeps after this track";
    }
    std::printf("%-20s %s\n", shown(device, "name").c_str(), doing.c_str());
}

// ---- The commands -------------------------------------------------------------------------------

void list_devices(const Arguments&) {
    const JsonPtr state = ask_state();
    const cJSON* device = nullptr;
    cJSON_ArrayForEach(device, member(state.get(), "devices")) {
        show_device(device);
    }
}

// Says what came of it. A device that can't reach what it is to play says so within a minute.
void wait_for_sound(const std::string& device) {
    using Clock = std::chrono::steady_clock;
    const auto latest = Clock::now() + kSoundPatience;
    for (int64_t version = -1; Clock::now() < latest;) {
        const JsonPtr state = ask_state(device, version);
        const cJSON* one = device_in(state.get());
        const std::string is = shown(one, "state");
        const std::string problem = shown(one, "problem");
        if (is == "playing") {
            std::printf("%s plays %s\n", shown(one, "name").c_str(),
                        shown(member(one, "track"), "title").c_str());
            return;
        }
        if (!problem.empty() || (is != "asked" && is != "opening")) {
            throw Failure{problem.empty() ? shown(one, "name") + ": " + state_text(one) : problem};
        }
        version = number_member(state.get(), "version").value_or(0);
    }
    throw Failure{"nothing is heard yet; `status` tells what comes of it"};
}

constexpr Option kPlayOptions[] = {
    {"no-wait", nullptr, "does not wait until something is heard"},
};

void play(const Arguments& words) {
    const GivenOptions given = read_options(kPlayOptions, words, nuvio::Words::taken);
    if (!given.failure.empty() || given.words.size() < 2) {
        throw Misuse{given.failure};
    }
    ask_to_play(given.words[0], std::span(given.words).subspan(1), "now");
    if (given.has("no-wait")) {
        std::printf("%s was asked to play it\n", printable(given.words[0]).c_str());
    } else {
        wait_for_sound(given.words[0]);
    }
}

template <const char* command>
void plain(const Arguments& words) {
    command_device(words[0], command, new_object());
}

// `key` of the device's state, for an amount that is relative to it.
int64_t resolve(const std::optional<Amount>& amount, const std::string& device, const char* key) {
    if (!amount) {
        throw Misuse{};
    }
    int64_t base = 0;
    if (amount->is_relative) {
        const JsonPtr state = ask_state(device);
        base = number_member(device_in(state.get()), key).value_or(0);
    }
    return std::max<int64_t>(0, base + amount->number);
}

void seek(const Arguments& words) {
    const int64_t position_ms = resolve(to_time(words[1]), words[0], "position_ms");
    const JsonPtr state = ask_state(words[0]);
    const int64_t length_ms =
        number_member(member(device_in(state.get()), "track"), "duration_ms").value_or(0);
    if (length_ms > 0 && position_ms >= length_ms) {
        throw Failure{"the track is over at " + time_text(length_ms)};
    }
    JsonPtr arguments = new_object();
    add(arguments.get(), "position_ms", position_ms);
    command_device(words[0], "seek", std::move(arguments));
}

void volume(const Arguments& words) {
    constexpr int64_t kLoudest = 100;
    const std::optional<Amount> amount = to_amount(words[1]);
    if (amount && !amount->is_relative && amount->number > kLoudest) {
        throw Misuse{"a volume is 0 to 100, not " + words[1]};
    }
    JsonPtr arguments = new_object();
    add(arguments.get(), "volume", std::min(kLoudest, resolve(amount, words[0], "volume")));
    command_device(words[0], "volume", std::move(arguments));
}

template <const char* command, const char* key>
void turn(const Arguments& words) {
    const std::optional<bool> is_on = to_switch(words[1]);
    if (!is_on) {
        throw Misuse{};
    }
    JsonPtr arguments = new_object();
    add(arguments.get(), key, *is_on);
    command_device(words[0], command, std::move(arguments));
}

void loop(const Arguments& words) {
    JsonPtr arguments = new_object();
    add(arguments.get(), "loop", words[1]);
    command_device(words[0], "loop", std::move(arguments));
}

void move(const Arguments& words) {
    JsonPtr body = new_object();
    add(body.get(), "to", words[1]);
    const JsonPtr moved =
        ask_controller("POST", device_path(words[0], "move"), print_json(body.get()));
    if (const std::string left = shown(moved.get(), "left"); !left.empty()) {
        std::printf("%s\n", left.c_str());
    }
}

void sleep(const Arguments& words) {
    const std::optional<Amount> minutes = to_amount(words[1] == "off" ? "0" : words[1]);
    JsonPtr body = new_object();
    if (words[1] == "end") {
        add(body.get(), "at_end", true);
    } else if (minutes && !minutes->is_relative) {
        add(body.get(), "minutes", minutes->number);
    } else {
        throw Misuse{};
    }
    ask_controller("POST", device_path(words[0], "sleep"), print_json(body.get()));
}

void rename(const Arguments& words) {
    JsonPtr body = new_object();
    add(body.get(), "name", words[1]);
    ask_controller("POST", device_path(words[0], "name"), print_json(body.get()));
}

// Once it is another one than `version`; a document of nothing new is not shown. What it is then.
int64_t show_status(int64_t version, const std::string& device, bool is_json) {
    const JsonPtr state = ask_state(device, version);
    const int64_t now = number_member(state.get(), "version").value_or(0);
    const cJSON* one = device.empty() ? nullptr : device_in(state.get());
    const cJSON* each = nullptr;
    if (now == version) {
        return now;
    }
    if (is_json) {
        std::printf("%s\n", printable(print_json(one != nullptr ? one : state.get())).c_str());
    } else if (one != nullptr) {
        show_device(one);
    } else {
        cJSON_ArrayForEach(each, member(state.get(), "devices")) {
            show_device(each);
        }
    }
    std::fflush(stdout);
    return now;
}

constexpr Option kStatusOptions[] = {
    {"json", nullptr, "all that is known, as one line of JSON"},
    {"follow", nullptr, "again at each change, until it is interrupted or the controller is gone"},
};

void status(const Arguments& words) {
    const GivenOptions given = read_options(kStatusOptions, words, nuvio::Words::taken);
    if (!given.failure.empty() || given.words.size() > 1) {
        throw Misuse{given.failure};
    }
    const std::string device = given.words.empty() ? "" : given.words[0];
    for (int64_t version = -1;;) {
        version = show_status(version, device, given.has("json"));
        if (!given.has("follow")) {
            return;
        }
    }
}

void find(const Arguments&) {
    if (find_devices() != 0) {
        throw Failure{};
    }
}

void connect(const Arguments& words) {
    if (connect_device(words[0], words[1]) != 0) {
        throw Failure{};
    }
}

constexpr char kPause[] = "pause", kResume[] = "play", kNext[] = "next", kPrevious[] = "previous",
               kStop[] = "stop", kLeave[] = "leave", kMute[] = "mute", kMuted[] = "muted",
               kShuffle[] = "shuffle";

struct Command {
    const char* name;
    size_t least, most;  // words behind it
    const char* usage;
    const char* text;  // for people
    bool is_change;    // of a device: that it was made is said in a line
    void (*run)(const Arguments& words);
};

constexpr size_t kAny = 100'000;
constexpr Command kCommands[] = {
    {"devices", 0, 0, "", "what there is, and what it does", false, list_devices},
    {"play", 2, kAny, "DEVICE WHAT... [--no-wait]",
     "a file, a folder, a playlist, a URL, or words to look for; waits until it is heard", false,
     play},
    {"pause", 1, 1, "DEVICE", "", true, plain<kPause>},
    {"resume", 1, 1, "DEVICE", "", true, plain<kResume>},
    {"next", 1, 1, "DEVICE", "", true, plain<kNext>},
    {"previous", 1, 1, "DEVICE", "", true, plain<kPrevious>},
    {"stop", 1, 1, "DEVICE", "", true, plain<kStop>},
    {"leave", 1, 1, "DEVICE", "ends its session", true, plain<kLeave>},
    {"seek", 2, 2, "DEVICE [+|-]TIME", "90, 1:30, +10", true, seek},
    {"volume", 2, 2, "DEVICE [+|-]PERCENT", "0 to 100", true, volume},
    {"mute", 2, 2, "DEVICE on|off", "", true, turn<kMute, kMuted>},
    {"shuffle", 2, 2, "DEVICE on|off", "", true, turn<kShuffle, kShuffle>},
    {"loop", 2, 2, "DEVICE off|one|all", "", true, loop},
    {"move", 2, 2, "DEVICE OTHER", "its music goes on there", true, move},
    {"rename", 2, 2, "DEVICE NAME", "what it is called here; '': as it calls itself", true, rename},
    {"sleep", 2, 2, "DEVICE MINUTES|end|off", "pauses it then, or at the end of the track", true,
     sleep},
    {"alarm", 0, 7, "[DEVICE [TIME [DAYS] WHAT [--volume PERCENT] | remove N | on N | off N]]",
     "shows them, or plays it at that time: 07:00 mon-fri, once without days", false, alarm},
    {"queue", 1, kAny, "DEVICE [add|next WHAT... | jump N | remove N... | move N M|end | clear]",
     "shows it, each track with its place N, or changes it", true, queue},
    {"undo", 1, 1, "DEVICE", "puts back what was last taken away from its queue", true, undo},
    {"playlists", 0, 3, "[save DEVICE NAME | rename NAME NEW | delete NAME]",
     "shows them, or changes one of the controller's own", false, playlists},
    {"stations", 0, 3, "[add NAME URL | rename NAME NEW | delete NAME]",
     "radios that have a name here", false, stations},
    {"status", 0, 3, "[DEVICE] [--json] [--follow]", "what plays; --follow: again at each change",
     false, status},
    {"find", 0, 0, "", "without a controller: what answers on the network", false, find},
    {"connect", 2, 2, "DEVICE PATH-OR-URL", "without a controller: hands over a session", false,
     connect},
};

// A queue is shown where nothing else is asked of it.
bool is_question(const Command& command, const Arguments& words) {
    return command.run == queue && words.size() == 1;
}

// Behind the device.
std::string joined(const Arguments& words) {
    return std::accumulate(
        words.begin() + 1, words.end(), std::string(),
        [](const std::string& text, const std::string& word) { return text + " " + word; });
}

}  // namespace

int run_command(const std::vector<std::string>& words) {
    const auto* command = std::ranges::find_if(
        kCommands, [&](const Command& each) { return !words.empty() && each.name == words[0]; });
    if (command == std::end(kCommands)) {
        std::fprintf(
            stderr, "nuvio-connect-controller: %s\n\n%s",
            words.empty() ? "no command" : printable("unknown command '" + words[0] + "'").c_str(),
            command_help().c_str());
        return kUsageError;
    }
    const Arguments arguments(words.begin() + 1, words.end());
    try {
        if (arguments.size() < command->least || arguments.size() > command->most) {
            throw Misuse{};
        }
        start_http();
        command->run(arguments);
        if (command->is_change && !is_question(*command, arguments)) {
            std::printf("%s: %s%s\n", printable(arguments[0]).c_str(), command->name,
                        printable(joined(arguments)).c_str());
        }
        return 0;
    } catch (const Failure& failure) {
        if (!failure.text.empty()) {
            std::fprintf(stderr, "%s: %s\n", command->name, printable(failure.text).c_str());
        }
        return 1;
    } catch (const Misuse& misuse) {
        if (!misuse.text.empty()) {
            std::fprintf(stderr, "nuvio-connect-controller: %s\n", printable(misuse.text).c_str());
        }
        std::fprintf(stderr, "usage: nuvio-connect-controller %s %s\n", command->name,
                     command->usage);
        return kUsageError;
    }
}

std::string command_help() {
    std::string help =
        "usage: nuvio-connect-controller COMMAND ...\n\n"
        "  serve --music DIR... [OPTION...]    runs the controller\n";
    for (const Command& command : kCommands) {
        constexpr size_t kColumn = 38;
        std::string line = std::string("  ") + command.name + " " + command.usage;
        if (*command.text != '\0') {
            line += line.size() < kColumn - 1 ? "" : "\n";
            line.resize(line.ends_with('\n') ? line.size() + kColumn : kColumn, ' ');
        }
        help += line + command.text + "\n";
    }
    return help + "\nOptions of serve:\n" + describe_settings() +
           "\nNUVIO_CONTROLLER (http://127.0.0.1:8090) says where the controller runs, "
           "NUVIO_CONTROLLER_PASSWORD\nwhat it asks for. See nuvio-connect-controller(1).\n";
}

}  // namespace nuvio::controller
