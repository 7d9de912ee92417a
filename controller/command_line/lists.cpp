#include "controller/command_line/lists.h"

#include <algorithm>
#include <cstdio>
#include <utility>

#include "common/json/json.h"
#include "common/utf8.h"
#include "controller/command_line/running.h"

namespace nuvio::controller {

namespace {

constexpr size_t kPage = 500;

void show_lists(const cJSON* lists, const char* detail) {
    const cJSON* list = nullptr;
    cJSON_ArrayForEach(list, lists) {
        std::printf("%-40s %s\n", shown(list, "name").c_str(), shown(list, detail).c_str());
    }
}

JsonPtr names(std::initializer_list<std::pair<const char*, std::string>> members) {
    JsonPtr body = new_object();
    for (const auto& [key, value] : members) {
        add(body.get(), key, value);
    }
    return body;
}

void change(const std::string& path, const JsonPtr& body, const std::string& done) {
    ask_controller("POST", path, print_json(body.get()));
    std::printf("%s\n", printable(done).c_str());
}

// What playlists and stations have in common. False: something else is asked for.
bool change_one(const char* kind, const std::vector<std::string>& words) {
    if (words.size() == 3 && words[0] == "rename") {
        change(path_below(kind, words[1], "rename"), names({{"name", words[2]}}),
               words[1] + " is called " + words[2]);
    } else if (words.size() == 2 && words[0] == "delete") {
        change(path_below(kind, words[1], "delete"), new_object(), words[1] + " is deleted");
    } else {
        return false;
    }
    return true;
}

}  // namespace

void playlists(const std::vector<std::string>& words) {
    if (words.empty()) {
        show_lists(member(ask_controller("GET", "playlists").get(), "playlists"), "what");
        for (size_t first = 0, count = kPage; count == kPage; first += kPage) {
            const JsonPtr page =
                ask_controller("GET", "library/playlists?count=" + std::to_string(kPage) +
                                          "&first=" + std::to_string(first));
            const cJSON* const lists = member(page.get(), "playlists");
            count = static_cast<size_t>(cJSON_GetArraySize(lists));
            show_lists(lists, "what");
        }
    } else if (words.size() == 3 && words[0] == "save") {
        change("playlists", names({{"device", words[1]}, {"name", words[2]}}),
               "saved as " + words[2]);
    } else if (!change_one("playlists", words)) {
        throw Misuse{};
    }
}

void stations(const std::vector<std::string>& words) {
    if (words.empty()) {
        show_lists(member(ask_controller("GET", "stations").get(), "stations"), "url");
    } else if (words.size() == 3 && words[0] == "add") {
        change("stations", names({{"name", words[1]}, {"url", words[2]}}), words[1] + " is added");
    } else if (!change_one("stations", words)) {
        throw Misuse{};
    }
}

}  // namespace nuvio::controller
