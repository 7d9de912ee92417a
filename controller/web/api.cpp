#include "controller/web/api.h"

#include <algorithm>
#include <chrono>

#include "common/number.h"
#include "common/percent_encoding.h"

namespace nuvio::controller {

namespace {

constexpr int64_t kMaxPage = 500;
constexpr int64_t kMaxFirst = 1'000'000;
constexpr int64_t kFound = 50;
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

JsonPtr describe(const Track& track) {
    JsonPtr object = new_object();
    add(object.get(), "id", track.id);
    add(object.get(), "title", track.title);
    add(object.get(), "artist", track.artist);
    add(object.get(), "album", track.album);
    add(object.get(), "album_id", track.album_id);
    add(object.get(), "disc", track.disc);
    add(object.get(), "number", track.number);
    add(object.get(), "duration_ms", track.duration_ms);
    return object;
}

JsonPtr describe(const Album& album) {
    JsonPtr object = new_object();
    add(object.get(), "id", album.id);
    add(object.get(), "title", album.title);
    add(object.get(), "artist", album.artist);
    add(object.get(), "year", album.year);
    add(object.get(), "tracks", album.track_count);
    return object;
}

JsonPtr describe(const Artist& artist) {
    JsonPtr object = new_object();
    add(object.get(), "id", artist.id);
    add(object.get(), "name", artist.name);
    add(object.get(), "albums", artist.album_count);
    return object;
}

JsonPtr describe(const UnreadableFile& file) {
    JsonPtr object = new_object();
    add(object.get(), "path", file.path);
    add(object.get(), "failure", file.failure);
    return object;
}

JsonPtr describe(const SubFolder& folder) {
    JsonPtr object = new_object();
    add(object.get(), "id", folder.id);
    add(object.get(), "name", folder.name);
    return object;
}

JsonPtr describe(const Library::PlaylistFile& playlist) {
    JsonPtr object = new_object();
    add(object.get(), "name", playlist.name);
    add(object.get(), "what", playlist.path);
    return object;
}

template <typename Item>
JsonPtr describe_all(const std::vector<Item>& items) {
    JsonPtr array = new_array();
    for (const Item& item : items) {
        append(array.get(), describe(item));
    }
    return array;
}

LibraryView::Page page_of(const Exchange& exchange, int64_t count = 100) {
    return {std::clamp<int64_t>(exchange.number_parameter("first", 0), 0, kMaxFirst),
            std::clamp<int64_t>(exchange.number_parameter("count", count), 1, kMaxPage)};
}

constexpr struct {
    std::string_view name;
    LibraryView::Kind kind;
} kKinds[] = {{"", LibraryView::Kind::all},
              {"artists", LibraryView::Kind::artists},
              {"albums", LibraryView::Kind::albums},
              {"tracks", LibraryView::Kind::tracks}};

JsonPtr in_object(const char* key, JsonPtr value) {
    JsonPtr object = new_object();
    add(object.get(), key, std::move(value));
    return object;
}

}  // namespace

const Api::Route Api::kRoutes[] = {
    {"GET", "/api/state", &Api::get_state},
    {"GET", "/api/devices/*/queue", &Api::get_queue},
    {"POST", "/api/devices/*/play", &Api::post_play},
    {"POST", "/api/devices/*/command", &Api::post_command},
    {"POST", "/api/devices/*/move", &Api::post_move},
    {"POST", "/api/devices/*/name", &Api::post_name},
    {"POST", "/api/devices/*/sleep", &Api::post_sleep},
    {"POST", "/api/devices/*/clear", &Api::post_clear},
    {"POST", "/api/devices/*/undo", &Api::post_undo},
    {"POST", "/api/devices/look", &Api::post_look},
    {"GET", "/api/library/albums", &Api::get_albums},
    {"GET", "/api/library/albums/*", &Api::get_album},
    {"GET", "/api/library/artists", &Api::get_artists},
    {"GET", "/api/library/folders/*", &Api::get_folder},
    {"GET", "/api/library/search", &Api::get_search},
    {"GET", "/api/library/unreadable", &Api::get_unreadable},
    {"POST", "/api/library/scan", &Api::post_scan},
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
    JsonPtr document = new_object();
    add(document.get(), "version", static_cast<int64_t>(version));
    add(document.get(), "devices", m_house.devices().describe(device));
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
    return outcome.is_ok ? exchange.reply_json(object) : exchange.fail(409, outcome.reason);
}

int Api::post_play(Exchange& exchange, const std::string& id) {
    const JsonPtr body = exchange.body();
    if (body == nullptr) {
        return exchange.status();
    }
    const Devices::Named device = m_house.devices().named(id);
    if (device.id.empty()) {
        return exchange.fail(404, device.failure);
    }
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
    const int64_t start = std::max<int64_t>(0, number_member(body.get(), "start").value_or(0));
    return answer(exchange, m_house.queues().play(device.id, items,
                                                  where == "next"  ? Where::next
                                                  : where == "end" ? Where::end
                                                                   : Where::now,
                                                  static_cast<size_t>(start)));
}

int Api::post_command(Exchange& exchange, const std::string& id) {
    JsonPtr body = exchange.body();
    if (body == nullptr) {
        return exchange.status();
    }
    const Devices::Named device = m_house.devices().named(id);
    const std::string name = text_member(body.get(), "command").value_or("");
    if (device.id.empty() || name.empty()) {
        return device.id.empty() ? exchange.fail(404, device.failure)
                                 : exchange.fail(400, "no command");
    }
    for (const char* own : {"command", "id", "type"}) {
        cJSON_DeleteItemFromObjectCaseSensitive(body.get(), own);
    }
    return answer(exchange, m_house.queues().run(device.id, name, std::move(body)));
}

int Api::post_clear(Exchange& exchange, const std::string& id) {
    if (exchange.body() == nullptr) {
        return exchange.status();
    }
    const Devices::Named device = m_house.devices().named(id);
    return device.id.empty() ? exchange.fail(404, device.failure)
                             : answer(exchange, m_house.queues().clear(device.id));
}

int Api::post_undo(Exchange& exchange, const std::string& id) {
    const JsonPtr body = exchange.body();
    if (body == nullptr) {
        return exchange.status();
    }
    const Devices::Named device = m_house.devices().named(id);
    return device.id.empty() ? exchange.fail(404, device.failure)
                             : answer(exchange, m_house.queues().undo(
                                                    device.id, number_member(body.get(), "undo")));
}

int Api::post_move(Exchange& exchange, const std::string& id) {
    const JsonPtr body = exchange.body();
    if (body == nullptr) {
        return exchange.status();
    }
    const Devices::Named from = m_house.devices().named(id);
    const Devices::Named to = m_house.devices().named(text_member(body.get(), "to").value_or(""));
    if (from.id.empty() || to.id.empty()) {
        return exchange.fail(404, from.id.empty() ? from.failure : to.failure);
    }
    return answer(exchange, m_house.mover().move(from.id, to.id));
}

int Api::post_name(Exchange& exchange, const std::string& id) {
    const JsonPtr body = exchange.body();
    if (body == nullptr) {
        return exchange.status();
    }
    const Devices::Named device = m_house.devices().named(id);
    const std::optional<std::string> name = text_member(body.get(), "name");
    if (device.id.empty() || !name) {
        return device.id.empty() ? exchange.fail(404, device.failure)
                                 : exchange.fail(400, "no name");
    }
    return answer(exchange, m_house.devices().rename(device.id, *name));
}

int Api::post_sleep(Exchange& exchange, const std::string& id) {
    const JsonPtr body = exchange.body();
    if (body == nullptr) {
        return exchange.status();
    }
    const Devices::Named device = m_house.devices().named(id);
    if (device.id.empty()) {
        return exchange.fail(404, device.failure);
    }
    if (bool_member(body.get(), "at_end").value_or(false)) {
        return answer(exchange, m_house.sleeper().set_at_end(device.id));
    }
    const int64_t minutes = number_member(body.get(), "minutes").value_or(-1);
    if (minutes < 0 || minutes > kLongestSleep) {
        return exchange.fail(400, "minutes are 0 to 1440");
    }
    return answer(exchange, m_house.sleeper().set(device.id, std::chrono::minutes(minutes)));
}

int Api::post_look(Exchange& exchange, const std::string&) {
    m_house.devices().ask_again();
    return exchange.reply_json(new_object());
}

int Api::get_albums(Exchange& exchange, const std::string&) {
    const int64_t artist = exchange.number_parameter("artist", 0);
    if (artist == 0) {
        return exchange.reply_json(
            in_object("albums", describe_all(m_library.view().albums(page_of(exchange)))));
    }
    JsonPtr object = in_object("albums", describe_all(m_library.view().albums_of_artist(artist)));
    add(object.get(), "artist", m_library.view().artist_name(artist));
    return exchange.reply_json(object);
}

int Api::get_album(Exchange& exchange, const std::string& id) {
    const int64_t number = to_number<int64_t>(id).value_or(0);
    const std::optional<Album> album = m_library.view().album(number);
    if (!album) {
        return exchange.fail(404, "no such album");
    }
    JsonPtr object = describe(*album);
    cJSON_DeleteItemFromObjectCaseSensitive(object.get(), "tracks");
    add(object.get(), "tracks", describe_all(m_library.view().tracks_of_album(number, 2000)));
    return exchange.reply_json(object);
}

int Api::get_artists(Exchange& exchange, const std::string&) {
    return exchange.reply_json(
        in_object("artists", describe_all(m_library.view().artists(page_of(exchange)))));
}

int Api::get_folder(Exchange& exchange, const std::string& id) {
    const FolderPage page = m_library.view().folder(to_number<int64_t>(id).value_or(0));
    JsonPtr object = new_object();
    add(object.get(), "id", page.id);
    add(object.get(), "parent", page.parent);
    add(object.get(), "name", page.name);
    add(object.get(), "folders", describe_all(page.folders));
    add(object.get(), "tracks", describe_all(page.tracks));
    add(object.get(), "playlists", describe_all(m_library.playlists_in(page.id)));
    return exchange.reply_json(object);
}

int Api::get_unreadable(Exchange& exchange, const std::string&) {
    return exchange.reply_json(
        in_object("files", describe_all(m_library.view().unreadable(kMaxPage))));
}

int Api::get_search(Exchange& exchange, const std::string&) {
    const std::string kind = exchange.parameter("kind");
    const auto* const row =
        std::ranges::find(kKinds, kind, [](const auto& one) { return one.name; });
    if (row == std::end(kKinds)) {
        return exchange.fail(400, "kind is artists, albums or tracks");
    }
    const Found found =
        m_library.view().search(exchange.parameter("q"), page_of(exchange, kFound), row->kind);
    JsonPtr total = new_object();
    add(total.get(), "artists", found.artist_count);
    add(total.get(), "albums", found.album_count);
    add(total.get(), "tracks", found.track_count);
    JsonPtr object = in_object("total", std::move(total));
    add(object.get(), "artists", describe_all(found.artists));
    add(object.get(), "albums", describe_all(found.albums));
    add(object.get(), "tracks", describe_all(found.tracks));
    return exchange.reply_json(object);
}

int Api::post_scan(Exchange& exchange, const std::string&) {
    m_library.request_scan();
    return exchange.reply_json(new_object());
}

}  // namespace nuvio::controller
