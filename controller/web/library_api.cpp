#include "controller/web/library_api.h"

#include <algorithm>

#include "common/number.h"

namespace nuvio::controller {

namespace {

constexpr int64_t kMaxPage = 500;
constexpr int64_t kMaxFirst = 1'000'000;
constexpr int64_t kFound = 50;

JsonPtr numbered(int64_t id, const char* key, const std::string& name) {
    JsonPtr object = new_object();
    add(object.get(), "id", id);
    add(object.get(), key, name);
    return object;
}

JsonPtr describe(const Track& track, bool is_favourite) {
    JsonPtr object = numbered(track.id, "title", track.title);
    add(object.get(), "artist", track.artist);
    add(object.get(), "album", track.album);
    add(object.get(), "album_id", track.album_id);
    add(object.get(), "disc", track.disc);
    add(object.get(), "number", track.number);
    add(object.get(), "duration_ms", track.duration_ms);
    add(object.get(), "favourite", is_favourite);
    return object;
}

JsonPtr describe(const Album& album) {
    JsonPtr object = numbered(album.id, "title", album.title);
    add(object.get(), "artist", album.artist);
    add(object.get(), "year", album.year);
    add(object.get(), "tracks", album.track_count);
    return object;
}

JsonPtr describe(const Artist& artist) {
    JsonPtr object = numbered(artist.id, "name", artist.name);
    add(object.get(), "albums", artist.album_count);
    return object;
}

JsonPtr describe(const Shelf& shelf) {
    JsonPtr object = new_object();
    add(object.get(), "name", shelf.name);
    add(object.get(), "albums", shelf.album_count);
    return object;
}

JsonPtr describe(const UnreadableFile& file) {
    JsonPtr object = new_object();
    add(object.get(), "path", file.path);
    add(object.get(), "failure", file.failure);
    return object;
}

JsonPtr describe(const SubFolder& folder) {
    return numbered(folder.id, "name", folder.name);
}

JsonPtr describe(const PlaylistFile& playlist) {
    JsonPtr object = new_object();
    add(object.get(), "name", playlist.name);
    add(object.get(), "what", playlist.what);
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
              {"tracks", LibraryView::Kind::tracks},
              {"playlists", LibraryView::Kind::playlists}};

constexpr struct {
    std::string_view name;
    LibraryView::Order order;
} kOrders[] = {{"", LibraryView::Order::title},
               {"title", LibraryView::Order::title},
               {"artist", LibraryView::Order::artist},
               {"year", LibraryView::Order::year},
               {"added", LibraryView::Order::added}};

// None: there is no such order.
std::optional<LibraryView::AlbumList> list_of(const Exchange& exchange, const std::string& sort) {
    const auto* const row =
        std::ranges::find(kOrders, sort, [](const auto& one) { return one.name; });
    if (row == std::end(kOrders)) {
        return std::nullopt;
    }
    LibraryView::AlbumList list{row->order, exchange.parameter("from")};
    const std::string genre = exchange.parameter("genre");
    const std::string composer = exchange.parameter("composer");
    if (!genre.empty() || !composer.empty()) {
        list.kind =
            genre.empty() ? LibraryView::ShelfKind::composer : LibraryView::ShelfKind::genre;
        list.shelf = genre.empty() ? composer : genre;
    }
    return list;
}

JsonPtr in_object(const char* key, JsonPtr value) {
    JsonPtr object = new_object();
    add(object.get(), key, std::move(value));
    return object;
}

}  // namespace

JsonPtr LibraryApi::describe_tracks(const std::vector<Track>& tracks) const {
    JsonPtr array = new_array();
    for (const Track& track : tracks) {
        append(array.get(), describe(track, m_library.is_favourite(track)));
    }
    return array;
}

int LibraryApi::get_albums(Exchange& exchange, const std::string&) {
    const int64_t artist = exchange.number_parameter("artist", 0);
    const std::string sort = exchange.parameter("sort");
    if (sort == "played") {
        return exchange.reply_json(
            in_object("albums", describe_all(m_library.albums_heard(page_of(exchange)))));
    }
    if (artist == 0) {
        const std::optional<LibraryView::AlbumList> list = list_of(exchange, sort);
        return list
                   ? exchange.reply_json(in_object(
                         "albums", describe_all(m_library.view().albums(page_of(exchange), *list))))
                   : exchange.fail(400, "sort is title, artist, year, added or played");
    }
    JsonPtr object = in_object("albums", describe_all(m_library.view().albums_of_artist(artist)));
    add(object.get(), "artist", m_library.view().artist_name(artist));
    return exchange.reply_json(object);
}

int LibraryApi::get_album(Exchange& exchange, const std::string& id) {
    const int64_t number = to_number<int64_t>(id).value_or(0);
    const std::optional<Album> album = m_library.view().album(number);
    if (!album) {
        return exchange.fail(404, "no such album");
    }
    JsonPtr object = describe(*album);
    cJSON_DeleteItemFromObjectCaseSensitive(object.get(), "tracks");
    const std::vector<Track> tracks = m_library.view().tracks_of_album(number, 2000);
    add(object.get(), "tracks", describe_tracks(tracks));
    add(object.get(), "favourite", m_library.is_favourite_album(tracks));
    return exchange.reply_json(object);
}

int LibraryApi::get_artists(Exchange& exchange, const std::string&) {
    return exchange.reply_json(in_object(
        "artists",
        describe_all(m_library.view().artists(page_of(exchange), exchange.parameter("from")))));
}

int LibraryApi::get_genres(Exchange& exchange, const std::string&) {
    return exchange.reply_json(in_object(
        "genres",
        describe_all(m_library.view().shelves(LibraryView::ShelfKind::genre, page_of(exchange)))));
}

int LibraryApi::get_composers(Exchange& exchange, const std::string&) {
    return exchange.reply_json(
        in_object("composers", describe_all(m_library.view().shelves(
                                   LibraryView::ShelfKind::composer, page_of(exchange)))));
}

int LibraryApi::get_folder(Exchange& exchange, const std::string& id) {
    const FolderPage page = m_library.view().folder(to_number<int64_t>(id).value_or(0));
    JsonPtr object = numbered(page.id, "name", page.name);
    add(object.get(), "parent", page.parent);
    add(object.get(), "folders", describe_all(page.folders));
    add(object.get(), "tracks", describe_tracks(page.tracks));
    add(object.get(), "playlists", describe_all(m_library.playlists_in(page.id)));
    return exchange.reply_json(object);
}

int LibraryApi::get_unreadable(Exchange& exchange, const std::string&) {
    return exchange.reply_json(
        in_object("files", describe_all(m_library.view().unreadable(kMaxPage))));
}

int LibraryApi::get_search(Exchange& exchange, const std::string&) {
    const std::string kind = exchange.parameter("kind");
    const auto* const row =
        std::ranges::find(kKinds, kind, [](const auto& one) { return one.name; });
    if (row == std::end(kKinds)) {
        return exchange.fail(400, "kind is artists, albums, tracks or playlists");
    }
    const Found found =
        m_library.search(exchange.parameter("q"), page_of(exchange, kFound), row->kind);
    JsonPtr total = new_object();
    add(total.get(), "artists", found.artist_count);
    add(total.get(), "albums", found.album_count);
    add(total.get(), "tracks", found.track_count);
    add(total.get(), "playlists", found.playlist_count);
    JsonPtr object = in_object("total", std::move(total));
    add(object.get(), "artists", describe_all(found.artists));
    add(object.get(), "albums", describe_all(found.albums));
    add(object.get(), "tracks", describe_tracks(found.tracks));
    add(object.get(), "playlists", describe_all(found.playlists));
    return exchange.reply_json(object);
}

int LibraryApi::post_scan(Exchange& exchange, const std::string&) {
    m_library.request_scan();
    return exchange.reply_json(new_object());
}

// ---- Own lists ----------------------------------------------------------------------------------

int LibraryApi::get_favourites(Exchange& exchange, const std::string&) {
    const std::string kind = exchange.parameter("kind");
    if (kind == "ids") {
        JsonPtr ids = new_array();
        for (const Track& track : m_library.favourite_tracks({0, Library::kMostFavourites})) {
            append(ids.get(), JsonPtr(cJSON_CreateNumber(static_cast<double>(track.id))));
        }
        return exchange.reply_json(in_object("ids", std::move(ids)));
    }
    if (kind != "albums" && kind != "tracks") {
        return exchange.fail(400, "kind is albums, tracks or ids");
    }
    const LibraryView::Page page = page_of(exchange);
    return exchange.reply_json(in_object(
        kind.c_str(), kind == "albums" ? describe_all(m_library.favourite_albums(page))
                                       : describe_tracks(m_library.favourite_tracks(page))));
}

int LibraryApi::post_favourite(Exchange& exchange, const std::string&) {
    const JsonPtr body = exchange.body();
    if (body == nullptr) {
        return exchange.status();
    }
    const std::optional<bool> is_one = bool_member(body.get(), "favourite");
    return is_one ? answer(exchange, m_library.set_favourite(
                                         text_member(body.get(), "what").value_or(""), *is_one))
                  : exchange.fail(400, "favourite is true or false");
}

int LibraryApi::get_playlist_files(Exchange& exchange, const std::string&) {
    return exchange.reply_json(
        in_object("playlists", describe_all(m_library.view().playlists(page_of(exchange)))));
}

int LibraryApi::get_playlists(Exchange& exchange, const std::string&) {
    JsonPtr playlists = new_array();
    for (const std::string& name : m_library.own_lists().playlists()) {
        append(playlists.get(), describe(PlaylistFile{name, "playlist:" + name}));
    }
    return exchange.reply_json(in_object("playlists", std::move(playlists)));
}

int LibraryApi::get_stations(Exchange& exchange, const std::string&) {
    JsonPtr stations = new_array();
    for (const PlaylistEntry& station : m_library.own_lists().stations()) {
        JsonPtr object = describe(PlaylistFile{station.title, "station:" + station.title});
        add(object.get(), "url", station.location);
        append(stations.get(), std::move(object));
    }
    return exchange.reply_json(in_object("stations", std::move(stations)));
}

int LibraryApi::post_playlist(Exchange& exchange, const std::string&) {
    const JsonPtr body = exchange.body();
    if (body == nullptr) {
        return exchange.status();
    }
    const Devices::Named device =
        m_house.devices().named(text_member(body.get(), "device").value_or(""));
    if (device.id.empty()) {
        return exchange.fail(404, device.failure);
    }
    const std::optional<std::vector<Library::Queued>> queue = m_house.devices().queued(device.id);
    if (!queue) {
        return exchange.fail(409, "its queue is not known just now");
    }
    return answer(exchange, m_library.own_lists().save(text_member(body.get(), "name").value_or(""),
                                                       m_library.entries_of(*queue)));
}

int LibraryApi::post_station(Exchange& exchange, const std::string&) {
    const JsonPtr body = exchange.body();
    return body == nullptr ? exchange.status()
                           : answer(exchange, m_library.own_lists().add_station(
                                                  text_member(body.get(), "name").value_or(""),
                                                  text_member(body.get(), "url").value_or("")));
}

template <OwnLists::Change change_list>
int LibraryApi::change(Exchange& exchange, const std::string& name) {
    return exchange.body() == nullptr
               ? exchange.status()
               : answer(exchange, (m_library.own_lists().*change_list)(name));
}

template <OwnLists::Rename rename_list>
int LibraryApi::rename(Exchange& exchange, const std::string& name) {
    const JsonPtr body = exchange.body();
    return body == nullptr
               ? exchange.status()
               : answer(exchange, (m_library.own_lists().*rename_list)(
                                      name, text_member(body.get(), "name").value_or("")));
}

template int LibraryApi::change<&OwnLists::remove>(Exchange&, const std::string&);
template int LibraryApi::change<&OwnLists::restore>(Exchange&, const std::string&);
template int LibraryApi::change<&OwnLists::remove_station>(Exchange&, const std::string&);
template int LibraryApi::rename<&OwnLists::rename>(Exchange&, const std::string&);
template int LibraryApi::rename<&OwnLists::rename_station>(Exchange&, const std::string&);

int LibraryApi::answer(Exchange& exchange, const std::string& failure) {
    if (!failure.empty()) {
        return exchange.fail(409, failure);
    }
    m_changes.announce();
    return exchange.reply_json(new_object());
}

}  // namespace nuvio::controller
