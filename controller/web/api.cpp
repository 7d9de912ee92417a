#include "controller/web/api.h"

#include <algorithm>
#include <chrono>

#include "common/percent_encoding.h"

namespace nuvio::controller {

namespace {

constexpr std::chrono::seconds kLongestWait{25};
constexpr int64_t kLongestSleep = 1440;  // minutes

// The rest of the encoded `path` that stands for the '*' in `pattern`, decoded; none: they do not
// match.
std::optional<std::string> match(std::string_view pattern, std::string_view path) {
    const size_t star = pattern.find('*');
    if (star == std::string_view::npos) {
        return pattern == path ? std::optional(std::string()) : std::nullopt;
    }
    const std::string_view before = pattern.substr(0, star);
    const std::string_view behind = pattern.substr(star + 1);
    if (path.size() <= before.size() + behind.size() || !path.starts_with(before) ||
        !path.ends_with(behind)) {
        return std::nullopt;
    }
    const std::string_view name =
        path.substr(before.size(), path.size() - before.size() - behind.size());
    return name.find('/') == std::string_view::npos ? percent_decode(name) : std::nullopt;
}

}  // namespace

const Api::Route Api::kRoutes[] = {
    {"GET", "/api/state", &Api::get_state},
    {"GET", "/api/devices/*/queue", &Api::get_queue},
    {"POST", "/api/devices/*/play", &Api::of_device<&Api::post_play>},
    {"POST", "/api/devices/*/command", &Api::of_device<&Api::post_command>},
    {"POST", "/api/devices/*/move", &Api::of_device<&Api::post_move>},
    {"POST", "/api/devices/*/name", &Api::of_device<&Api::post_name>},
    {"POST", "/api/devices/*/sleep", &Api::of_device<&Api::post_sleep>},
    {"POST", "/api/devices/*/clear", &Api::of_device<&Api::post_clear>},
    {"POST", "/api/devices/*/undo", &Api::of_device<&Api::post_undo>},
    {"POST", "/api/devices/look", &Api::post_look},
    {"GET", "/api/alarms", &Api::alarms<&AlarmApi::get_alarms>},
    {"POST", "/api/devices/*/alarms", &Api::alarms<&AlarmApi::post_alarm>},
    {"POST", "/api/alarms/*/change", &Api::alarms<&AlarmApi::post_change>},
    {"POST", "/api/alarms/*/delete", &Api::alarms<&AlarmApi::post_delete>},
    {"GET", "/api/library/albums", &Api::library<&LibraryApi::get_albums>},
    {"GET", "/api/library/albums/*", &Api::library<&LibraryApi::get_album>},
    {"GET", "/api/library/artists", &Api::library<&LibraryApi::get_artists>},
    {"GET", "/api/library/genres", &Api::library<&LibraryApi::get_genres>},
    {"GET", "/api/library/composers", &Api::library<&LibraryApi::get_composers>},
    {"GET", "/api/library/folders/*", &Api::library<&LibraryApi::get_folder>},
    {"GET", "/api/library/search", &Api::library<&LibraryApi::get_search>},
    {"GET", "/api/library/unreadable", &Api::library<&LibraryApi::get_unreadable>},
    {"POST", "/api/library/scan", &Api::library<&LibraryApi::post_scan>},
    {"GET", "/api/library/favourites", &Api::library<&LibraryApi::get_favourites>},
    {"POST", "/api/library/favourites", &Api::library<&LibraryApi::post_favourite>},
    {"GET", "/api/library/playlists", &Api::library<&LibraryApi::get_playlist_files>},
    {"GET", "/api/playlists", &Api::library<&LibraryApi::get_playlists>},
    {"POST", "/api/playlists", &Api::library<&LibraryApi::post_playlist>},
    {"POST", "/api/playlists/*/rename", &Api::library<&LibraryApi::rename<&OwnLists::rename>>},
    {"POST", "/api/playlists/*/delete", &Api::library<&LibraryApi::change<&OwnLists::remove>>},
    {"POST", "/api/playlists/*/restore", &Api::library<&LibraryApi::change<&OwnLists::restore>>},
    {"GET", "/api/stations", &Api::library<&LibraryApi::get_stations>},
    {"POST", "/api/stations", &Api::library<&LibraryApi::post_station>},
    {"POST", "/api/stations/*/rename",
     &Api::library<&LibraryApi::rename<&OwnLists::rename_station>>},
    {"POST", "/api/stations/*/delete",
     &Api::library<&LibraryApi::change<&OwnLists::remove_station>>},
};

int Api::serve(Exchange& exchange) {
    bool is_known = false;
    for (const Route& route : kRoutes) {
        const std::optional<std::string> id = match(route.path, exchange.encoded_path());
        is_known = is_known || id.has_value();
        if (id && exchange.method() == route.method) {
            // A form on another site's page can send other types without asking first.
            if (exchange.method() == "POST" && !exchange.is_of_type("application/json")) {
                return exchange.fail(415, "Content-Type must be application/json");
            }
            return (this->*route.handler)(exchange, *id);
        }
    }
    return is_known ? exchange.fail(405, "not by this method")
                    : exchange.fail(404, "no such thing");
}

std::string Api::state(uint64_t version, const std::string& device) {
    const ScanProgress progress = m_library.progress();
    JsonPtr library = new_object();
    add(library.get(), "folders", static_cast<int64_t>(m_library.folder_count()));
    add(library.get(), "tracks", progress.tracks);
    add(library.get(), "scanning", progress.is_scanning);
    add(library.get(), "seen", progress.files_seen);
    add(library.get(), "changed", progress.files_changed);
    add(library.get(), "revision", progress.revision);
    add(library.get(), "unreadable", progress.unreadable);
    add(library.get(), "failure", progress.failure);
    add(library.get(), "lists", m_library.lists_revision());
    JsonPtr document = new_object();
    add(document.get(), "version", static_cast<int64_t>(version));
    add(document.get(), "devices", m_house.devices().describe(device));
    add(document.get(), "alarms", m_house.alarms().describe(device));
    add(document.get(), "library", std::move(library));
    return print_json(document.get());
}

int Api::get_state(Exchange& exchange, const std::string&) {
    const std::string name = exchange.parameter("device");
    const Devices::Named device = name.empty() ? Devices::Named() : m_house.devices().named(name);
    if (!device.failure.empty()) {
        return exchange.fail(404, device.failure);
    }
    const int64_t after = exchange.number_parameter("after", -1);
    const Places::Place place = after > 0 ? m_waiting.take(exchange.peer()) : nullptr;
    if (after > 0 && place == nullptr) {
        return exchange.fail_as_busy("too many wait for a change");
    }
    const uint64_t version =
        m_changes.wait(after < 0 ? 0 : static_cast<uint64_t>(after), kLongestWait);
    return exchange.reply(200, "application/json", state(version, device.id),
                          "Cache-Control: no-store\r\n");
}

int Api::get_queue(Exchange& exchange, const std::string& id) {
    const Devices::Named device = m_house.devices().named(id);
    const JsonPtr queue = m_house.devices().describe_queue(device.id);
    return queue != nullptr ? exchange.reply_json(queue) : exchange.fail(404, device.failure);
}

int Api::answer(Exchange& exchange, const Outcome& outcome) {
    JsonPtr object = new_object();
    if (outcome.undo != 0) {
        add(object.get(), "undo", outcome.undo);
    }
    if (outcome.is_ok && !outcome.reason.empty()) {
        add(object.get(), "left", outcome.reason);
    }
    return outcome.is_ok ? exchange.reply_json(object)
                         : exchange.fail(409, outcome.reason, {}, std::move(object));
}

template <auto handler>
int Api::of_device(Exchange& exchange, const std::string& id) {
    JsonPtr body = exchange.body();
    if (body == nullptr) {
        return exchange.status();
    }
    const Devices::Named device = m_house.devices().named(id);
    return device.id.empty() ? exchange.fail(404, device.failure)
                             : (this->*handler)(exchange, device.id, std::move(body));
}

int Api::post_play(Exchange& exchange, const std::string& device, const JsonPtr& body) {
    std::vector<Playable> items;
    const cJSON* what = nullptr;
    cJSON_ArrayForEach(what, member(body.get(), "what")) {
        Selection selection = m_library.select(cJSON_IsString(what) != 0 ? what->valuestring : "");
        if (!selection.failure.empty()) {
            return exchange.fail(404, selection.failure);
        }
        std::ranges::move(selection.items, std::back_inserter(items));
        if (items.size() > Library::kMaxSelection) {
            return exchange.fail(409, Library::kTooMany);
        }
    }
    const std::string where = text_member(body.get(), "where").value_or("now");
    const std::optional<int64_t> start = number_member(body.get(), "start");
    return answer(exchange,
                  m_house.queues().play(
                      device, items,
                      where == "next"  ? Where::next
                      : where == "end" ? Where::end
                                       : Where::now,
                      start ? std::optional<size_t>(std::max<int64_t>(0, *start)) : std::nullopt));
}

int Api::post_command(Exchange& exchange, const std::string& device, JsonPtr body) {
    const std::string name = text_member(body.get(), "command").value_or("");
    if (name.empty()) {
        return exchange.fail(400, "no command");
    }
    for (const char* own : {"command", "id", "type"}) {
        cJSON_DeleteItemFromObjectCaseSensitive(body.get(), own);
    }
    return answer(exchange, m_house.queues().run(device, name, std::move(body)));
}

int Api::post_clear(Exchange& exchange, const std::string& device, const JsonPtr&) {
    return answer(exchange, m_house.queues().clear(device));
}

int Api::post_undo(Exchange& exchange, const std::string& device, const JsonPtr& body) {
    return answer(exchange, m_house.queues().undo(device, number_member(body.get(), "undo")));
}

int Api::post_move(Exchange& exchange, const std::string& device, const JsonPtr& body) {
    const Devices::Named to = m_house.devices().named(text_member(body.get(), "to").value_or(""));
    return to.id.empty() ? exchange.fail(404, to.failure)
                         : answer(exchange, m_house.mover().move(device, to.id));
}

int Api::post_name(Exchange& exchange, const std::string& device, const JsonPtr& body) {
    const std::optional<std::string> name = text_member(body.get(), "name");
    return name ? answer(exchange, m_house.devices().rename(device, *name))
                : exchange.fail(400, "no name");
}

int Api::post_sleep(Exchange& exchange, const std::string& device, const JsonPtr& body) {
    if (bool_member(body.get(), "at_end").value_or(false)) {
        return answer(exchange, m_house.sleeper().set_at_end(device));
    }
    const int64_t minutes = number_member(body.get(), "minutes").value_or(-1);
    if (minutes < 0 || minutes > kLongestSleep) {
        return exchange.fail(400, "minutes are 0 to 1440");
    }
    return answer(exchange, m_house.sleeper().set(device, std::chrono::minutes(minutes)));
}

int Api::post_look(Exchange& exchange, const std::string&) {
    m_house.devices().ask_again();
    return exchange.reply_json(new_object());
}

}  // namespace nuvio::controller
