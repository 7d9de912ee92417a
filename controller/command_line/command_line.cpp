#include "controller/command_line/command_line.h"

#include <algorithm>
#include <cstdio>

#include "common/environment.h"
#include "common/json/json.h"
#include "common/options/options.h"
#include "common/percent_encoding.h"
#include "common/text.h"
#include "common/utf8.h"
#include "controller/base/settings.h"
#include "controller/command_line/arguments.h"
#include "controller/command_line/direct.h"
#include "controller/device/http_client.h"

namespace nuvio::controller {

namespace {

using Arguments = std::vector<std::string>;
constexpr long kPatienceMs = 40'000;
constexpr size_t kMaxAnswerValues = 1'000'000;

// Ends the command with status 1 and a line.
struct Failure {
    std::string text;
};
// With status 2, what is wrong where that is known, and the command's usage.
struct Misuse {
    std::string text = {};
};

JsonPtr ask_controller(const char* method, const std::string& path, const std::string& body = {}) {
    const std::string url = environment_text("NUVIO_CONTROLLER", "http://127.0.0.1:8090");
    const std::string password = environment_text("NUVIO_CONTROLLER_PASSWORD");
    const HttpAnswer answer = ask({.url = url + "/api/" + path,
                                   .method = method,
                                   .body = body,
                                   .user = password.empty() ? "" : "x:" + password,
                                   .timeout_ms = kPatienceMs});
    if (answer.status == 0) {
        throw Failure{"no controller at " + url + " (" + answer.failure +
                      "): is `nuvio-connect-controller serve` running?"};
    }
    // A queue of 20,000 tracks is such an answer.
    JsonPtr document = parse_json(answer.body, kMaxAnswerValues);
    if (answer.status != 200 || document == nullptr) {
        throw Failure{text_member(document.get(), "error")
                          .value_or("the controller answered " + std::to_string(answer.status))};
    }
    return document;
}

std::string device_path(const std::string& device, const char* what) {
    std::string name = percent_encode(device);
    for (size_t at = name.find('/'); at != std::string::npos; at = name.find('/', at)) {
        name.replace(at, 1, "%2F");
    }
    return "devices/" + name + "/" + what;
}

void command_device(const std::string& device, const char* command, JsonPtr arguments) {
    add(arguments.get(), "command", command);
    ask_controller("POST", device_path(device, "command"), print_json(arguments.get()));
}

// Of the document that `state` gives, the device of that name or id.
const cJSON* device_in(const cJSON* state, const std::string& name) {
    const cJSON* device = nullptr;
    cJSON_ArrayForEach(device, member(state, "devices")) {
        if (equals_ignoring_case(text_member(device, "name").value_or(""), name) ||
            text_member(device, "id") == name) {
            return device;
        }
    }
    throw Failure{"no device '" + name + "'; `devices` lists them"};
}

std::string shown(const cJSON* object, const char* key) {
    return printable(text_member(object, key).value_or(""));
}

std::string status_text(const cJSON* device) {
    const std::string status = shown(device, "status");
    return status == "absent"   ? "not on the network"
           : status == "failed" ? "can't be reached: " + shown(device, "failure")
           : status == "asking" ? "is being reached"
           : status == "other"  ? "used by another controller"
           : status == "apart"  ? "plays on, its connection is expected back"
           : status == "ours"   ? shown(device, "playback")
                                : "free";
}

void show_device(const cJSON* device) {
    const cJSON* track = member(device, "track");
    std::string doing = status_text(device);
    if (track != nullptr) {
        doing += "  " + shown(track, "title");
        const std::string artist = shown(track, "artist");
        doing += (artist.empty() ? "" : " - " + artist) + "  " +
                 time_text(number_member(device, "position_ms").value_or(0)) + " / " +
                 time_text(number_member(track, "duration_ms").value_or(0));
    }
    if (const auto volume = number_member(device, "volume")) {
        doing += "  volume " + std::to_string(*volume) +
                 (bool_member(device, "muted").value_or(false) ? " (muted)" : "");
    }
    std::printf("%-20s %s\n", shown(device, "name").c_str(), doing.c_str());
}

// ---- The commands -------------------------------------------------------------------------------

void list_devices(const Arguments&) {
    const JsonPtr state = ask_controller("GET", "state");
    const cJSON* device = nullptr;
    cJSON_ArrayForEach(device, member(state.get(), "devices")) {
        show_device(device);
    }
}

void play(const Arguments& words) {
    JsonPtr what = new_array();
    for (size_t i = 1; i < words.size(); ++i) {
        append(what.get(), to_what(words[i]));
    }
    JsonPtr body = new_object();
    add(body.get(), "what", std::move(what));
    ask_controller("POST", device_path(words[0], "play"), print_json(body.get()));
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
        const JsonPtr state = ask_controller("GET", "state");
        base = number_member(device_in(state.get(), device), key).value_or(0);
    }
    return std::max<int64_t>(0, base + amount->number);
}

void seek(const Arguments& words) {
    JsonPtr arguments = new_object();
    add(arguments.get(), "position_ms", resolve(to_time(words[1]), words[0], "position_ms"));
    command_device(words[0], "seek", std::move(arguments));
}

void volume(const Arguments& words) {
    JsonPtr arguments = new_object();
    add(arguments.get(), "volume",
        std::min<int64_t>(100, resolve(to_amount(words[1]), words[0], "volume")));
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

JsonPtr read_queue(const std::string& device) {
    return ask_controller("GET", device_path(device, "queue"));
}

void show_queue(const std::string& device) {
    const JsonPtr state = ask_controller("GET", "state");
    const std::optional<int64_t> current = number_member(device_in(state.get(), device), "item");
    const JsonPtr queue = read_queue(device);
    const cJSON* item = nullptr;
    int place = 0;
    cJSON_ArrayForEach(item, member(queue.get(), "items")) {
        std::printf("%c%4d  %-40s %-24s %s\n", number_member(item, "item") == current ? '>' : ' ',
                    ++place, shown(item, "title").c_str(), shown(item, "artist").c_str(),
                    time_text(number_member(item, "duration_ms").value_or(0)).c_str());
    }
}

// Places count from 1, as `queue` shows them.
int64_t item_at(const cJSON* queue, const std::string& place) {
    const std::optional<Amount> number = to_amount(place);
    const cJSON* item =
        number && number->number > 0 && number->number <= 1'000'000
            ? cJSON_GetArrayItem(member(queue, "items"), static_cast<int>(number->number - 1))
            : nullptr;
    const std::optional<int64_t> id = number_member(item, "item");
    if (!id) {
        throw Failure{"no place " + place + " in the queue"};
    }
    return *id;
}

void add_to_queue(const Arguments& words) {
    JsonPtr what = new_array();
    for (size_t i = 2; i < words.size(); ++i) {
        append(what.get(), to_what(words[i]));
    }
    JsonPtr body = new_object();
    add(body.get(), "what", std::move(what));
    add(body.get(), "where", words[1] == "next" ? "next" : "end");
    ask_controller("POST", device_path(words[0], "play"), print_json(body.get()));
}

void edit_queue(const Arguments& words) {
    const JsonPtr queue = read_queue(words[0]);
    JsonPtr arguments = new_object();
    JsonPtr items = new_array();
    const auto add_item = [&](const std::string& place) {
        append(items.get(),
               JsonPtr(cJSON_CreateNumber(static_cast<double>(item_at(queue.get(), place)))));
    };
    if (words[1] == "jump" && words.size() == 3) {
        add(arguments.get(), "item", item_at(queue.get(), words[2]));
        command_device(words[0], "queue_jump", std::move(arguments));
    } else if (words[1] == "remove") {
        std::for_each(words.begin() + 2, words.end(), add_item);
        add(arguments.get(), "items", std::move(items));
        command_device(words[0], "queue_remove", std::move(arguments));
    } else if (words[1] == "move" && words.size() == 4) {
        add_item(words[2]);
        add(arguments.get(), "items", std::move(items));
        if (words[3] != "end") {
            add(arguments.get(), "before", item_at(queue.get(), words[3]));
        }
        command_device(words[0], "queue_move", std::move(arguments));
    } else {
        throw Misuse{};
    }
}

void queue(const Arguments& words) {
    if (words.size() == 1) {
        show_queue(words[0]);
    } else if (words.size() < 3) {
        throw Misuse{};
    } else if (words[1] == "add" || words[1] == "next") {
        add_to_queue(words);
    } else {
        edit_queue(words);
    }
}

// Once it is another one than `version`; a document of nothing new is not shown. What it is then.
int64_t show_status(int64_t version, const std::string& device, bool is_json) {
    const JsonPtr state = ask_controller("GET", "state?after=" + std::to_string(version));
    const int64_t now = number_member(state.get(), "version").value_or(0);
    const cJSON* one = device.empty() ? nullptr : device_in(state.get(), device);
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
    void (*run)(const Arguments& words);
};

constexpr size_t kAny = 100'000;
constexpr Command kCommands[] = {
    {"devices", 0, 0, "", "what there is, and what it does", list_devices},
    {"play", 2, kAny, "DEVICE WHAT...", "a file, a folder, a playlist, a URL, or words to look for",
     play},
    {"pause", 1, 1, "DEVICE", "", plain<kPause>},
    {"resume", 1, 1, "DEVICE", "", plain<kResume>},
    {"next", 1, 1, "DEVICE", "", plain<kNext>},
    {"previous", 1, 1, "DEVICE", "", plain<kPrevious>},
    {"stop", 1, 1, "DEVICE", "", plain<kStop>},
    {"leave", 1, 1, "DEVICE", "ends its session", plain<kLeave>},
    {"seek", 2, 2, "DEVICE [+|-]TIME", "90, 1:30, +10", seek},
    {"volume", 2, 2, "DEVICE [+|-]PERCENT", "0 to 100", volume},
    {"mute", 2, 2, "DEVICE on|off", "", turn<kMute, kMuted>},
    {"shuffle", 2, 2, "DEVICE on|off", "", turn<kShuffle, kShuffle>},
    {"loop", 2, 2, "DEVICE off|one|all", "", loop},
    {"queue", 1, kAny, "DEVICE [add|next WHAT... | jump N | remove N... | move N M|end]",
     "shows it, each track with its place N, or changes it", queue},
    {"status", 0, 3, "[DEVICE] [--json] [--follow]", "what plays; --follow: again at each change",
     status},
    {"find", 0, 0, "", "without a controller: what answers on the network", find},
    {"connect", 2, 2, "DEVICE PATH-OR-URL", "without a controller: hands over a session", connect},
};

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
