#include "controller/command_line/queue.h"

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <optional>
#include <utility>

#include "common/json/json.h"
#include "controller/command_line/arguments.h"
#include "controller/command_line/running.h"

namespace nuvio::controller {

namespace {

JsonPtr read_queue(const std::string& device) {
    return ask_controller("GET", device_path(device, "queue"));
}

void show_queue(const std::string& device) {
    const JsonPtr state = ask_state(device);
    const std::optional<int64_t> current = number_member(device_in(state.get()), "item");
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

void edit_queue(const std::vector<std::string>& words) {
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

}  // namespace

void ask_to_play(const std::string& device, std::span<const std::string> texts, const char* where) {
    JsonPtr what = new_array();
    for (const std::string& text : texts) {
        append(what.get(), to_what(text));
    }
    JsonPtr body = new_object();
    add(body.get(), "what", std::move(what));
    add(body.get(), "where", where);
    ask_controller("POST", device_path(device, "play"), print_json(body.get()));
}

void undo(const std::vector<std::string>& words) {
    ask_controller("POST", device_path(words[0], "undo"), "{}");
}

void queue(const std::vector<std::string>& words) {
    if (words.size() == 1) {
        show_queue(words[0]);
    } else if (words.size() == 2 && words[1] == "clear") {
        ask_controller("POST", device_path(words[0], "clear"), "{}");
    } else if (words.size() < 3) {
        throw Misuse{};
    } else if (words[1] == "add" || words[1] == "next") {
        ask_to_play(words[0], std::span(words).subspan(2), words[1] == "next" ? "next" : "end");
    } else {
        edit_queue(words);
    }
}

}  // namespace nuvio::controller
