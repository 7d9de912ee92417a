#include "controller/command_line/alarms.h"

#include <algorithm>
#include <cstdio>
#include <optional>
#include <utility>

#include "common/json/json.h"
#include "common/options/options.h"
#include "common/text.h"
#include "common/utf8.h"
#include "controller/command_line/arguments.h"
#include "controller/command_line/running.h"
#include "controller/session/alarm_time.h"

namespace nuvio::controller {

namespace {

using Days = std::vector<size_t>;  // places in kDays

std::optional<size_t> day_at(std::string_view name) {
    const auto* const day = std::ranges::find(kDays, name);
    return day != kDays.end() ? std::optional(static_cast<size_t>(day - kDays.begin()))
                              : std::nullopt;
}

// "daily", "mon,wed", "mon-fri", "sat-mon"; none: something else.
std::optional<Days> to_days(std::string_view text) {
    Days days;
    if (text == "daily") {
        text = "mon-sun";
    }
    while (!text.empty()) {
        const std::string_view part = text.substr(0, text.find(','));
        text.remove_prefix(std::min(text.size(), part.size() + 1));
        const std::optional<size_t> first = day_at(part.substr(0, part.find('-')));
        const std::optional<size_t> last = day_at(
            part.find('-') == std::string_view::npos ? part : part.substr(part.find('-') + 1));
        if (!first || !last) {
            return std::nullopt;
        }
        for (size_t day = *first; day != *last; day = (day + 1) % kDays.size()) {
            days.push_back(day);
        }
        days.push_back(*last);
    }
    return days.empty() ? std::nullopt : std::optional(std::move(days));
}

void show_alarm(const cJSON* alarm) {
    std::string days;
    const cJSON* day = nullptr;
    cJSON_ArrayForEach(day, member(alarm, "days")) {
        days += (days.empty() ? "" : ",") + std::string(cJSON_GetStringValue(day));
    }
    std::string text = shown(alarm, "title");
    if (const auto volume = number_member(alarm, "volume")) {
        text += "  volume " + std::to_string(*volume);
    }
    if (!bool_member(alarm, "on").value_or(false)) {
        text += "  off";
    }
    if (const std::string failure = shown(alarm, "failure"); !failure.empty()) {
        text += "  (" + failure + ")";
    }
    std::printf("%4lld  %-20s %s  %-27s  %s\n",
                static_cast<long long>(number_member(alarm, "id").value_or(0)),
                shown(alarm, "device_name").c_str(), shown(alarm, "time").c_str(),
                days.empty() ? "once" : days.c_str(), text.c_str());
}

// By id, or by name where case does not matter; also of one that is away.
bool is_of(const cJSON* alarm, const std::string& device) {
    return text_member(alarm, "device") == device ||
           equals_ignoring_case(text_member(alarm, "device_name").value_or(""), device);
}

void list_alarms(const std::string& device) {
    const JsonPtr answer = ask_controller("GET", "alarms");
    const cJSON* alarm = nullptr;
    cJSON_ArrayForEach(alarm, member(answer.get(), "alarms")) {
        if (device.empty() || is_of(alarm, device)) {
            show_alarm(alarm);
        }
    }
}

// Of this device, as the list has it.
std::string id_of(const std::string& device, const std::string& number) {
    const JsonPtr answer = ask_controller("GET", "alarms");
    const cJSON* alarm = nullptr;
    cJSON_ArrayForEach(alarm, member(answer.get(), "alarms")) {
        if (is_of(alarm, device) &&
            std::to_string(number_member(alarm, "id").value_or(0)) == number) {
            return number;
        }
    }
    throw Failure{"no alarm " + number + " of " + device};
}

void change(const std::string& id, const char* how, const JsonPtr& body) {
    ask_controller("POST", path_below("alarms", id, how), print_json(body.get()));
}

constexpr Option kOptions[] = {
    {"volume", "PERCENT", "begins with it"},
};

void add_alarm(const GivenOptions& given) {
    const std::vector<std::string>& words = given.words;
    const std::optional<Days> days = to_days(words[2]);
    if (!to_minute(words[1]) || words.size() != (days ? 4 : 3)) {
        throw Misuse{};
    }
    JsonPtr body = new_object();
    add(body.get(), "time", words[1]);
    add(body.get(), "what", to_what(words.back()));
    if (days) {
        JsonPtr names = new_array();
        for (const size_t day : *days) {
            append(names.get(), kDays.at(day));
        }
        add(body.get(), "days", std::move(names));
    }
    if (given.has("volume")) {
        const std::optional<Amount> volume = to_amount(given.value_of("volume"));
        if (!volume || volume->is_relative) {
            throw Misuse{};
        }
        add(body.get(), "volume", volume->number);
    }
    ask_controller("POST", device_path(words[0], "alarms"), print_json(body.get()));
}

}  // namespace

void alarm(const std::vector<std::string>& all) {
    const GivenOptions given = read_options(kOptions, all, nuvio::Words::taken);
    const std::vector<std::string>& words = given.words;
    if (!given.failure.empty() || words.size() == 2) {
        throw Misuse{given.failure};
    }
    if (words.size() < 3) {
        list_alarms(words.empty() ? "" : words[0]);
        return;
    }
    const bool is_about_one = words.size() == 3 && !to_minute(words[1]);
    if (is_about_one && words[1] == "remove") {
        change(id_of(words[0], words[2]), "delete", new_object());
    } else if (const auto is_on = to_switch(words[1]); is_about_one && is_on) {
        JsonPtr body = new_object();
        add(body.get(), "on", *is_on);
        change(id_of(words[0], words[2]), "change", body);
    } else {
        add_alarm(given);
    }
    list_alarms(words[0]);
}

}  // namespace nuvio::controller
