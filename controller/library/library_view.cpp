#include "controller/library/library_view.h"

#include <algorithm>
#include <iterator>
#include <unordered_set>

#include "controller/library/words.h"

namespace nuvio::controller {

namespace {

constexpr char kTrackColumns[] =
    "SELECT tracks.id, tracks.title, artists.name, albums.title, tracks.album, tracks.artist,"
    " folders.root, folders.below, tracks.name, disc, number, duration, rate, channels, bits,"
    " failure = '', begin_us, end_us"
    " FROM tracks JOIN folders ON folders.id = tracks.folder"
    " JOIN artists ON artists.id = tracks.artist JOIN albums ON albums.id = tracks.album ";

constexpr char kAlbumColumns[] =
    "SELECT albums.id, albums.title, coalesce(artists.name, ''), coalesce(albums.artist, 0), year,"
    " (SELECT count(*) FROM tracks WHERE album = albums.id)"
    " FROM albums LEFT JOIN artists ON artists.id = albums.artist ";

constexpr char kArtistColumns[] =
    "SELECT id, name, (SELECT count(*) FROM albums WHERE artist = artists.id) FROM artists ";

constexpr char kPlaylistColumns[] =
    "SELECT root, below, playlists.name FROM playlists JOIN folders ON folders.id = folder ";

struct OrderRow {
    const char *key, *by;
    bool of_artists, has_letters;
};

// By LibraryView::Order.
constexpr OrderRow kOrders[] = {
    {"albums.title COLLATE NOCASE", "albums.title COLLATE NOCASE, albums.id", false, true},
    {"coalesce(artists.name, '') COLLATE NOCASE",
     "coalesce(artists.name, '') COLLATE NOCASE, year, albums.id", true, true},
    {"''", "year DESC, albums.title COLLATE NOCASE, albums.id", false, false},
    {"''", "added DESC, albums.id DESC", false, false}};

constexpr const char* column_of(LibraryView::ShelfKind kind) {
    return kind == LibraryView::ShelfKind::genre ? "genre" : "composer";
}

Album read_album(const Statement& row) {
    return {row.number(0), row.text(1), row.text(2), row.number(3), row.number(4), row.number(5)};
}

std::vector<Album> read_albums(Statement& rows) {
    std::vector<Album> albums;
    while (rows.step()) {
        albums.push_back(read_album(rows));
    }
    return albums;
}

std::vector<Artist> read_artists(Statement& rows) {
    std::vector<Artist> artists;
    while (rows.step()) {
        artists.push_back({rows.number(0), rows.text(1), rows.number(2)});
    }
    return artists;
}

std::string join_path(const std::string& below, const std::string& name) {
    return below.empty() ? name : below + "/" + name;
}

std::vector<Track> read_tracks(Statement& rows) {
    std::vector<Track> tracks;
    while (rows.step()) {
        tracks.push_back({rows.number(0), rows.text(1), rows.text(2), rows.text(3), rows.number(4),
                          rows.number(5), rows.text(6), join_path(rows.text(7), rows.text(8)),
                          rows.number(9), rows.number(10), rows.number(11), rows.number(12),
                          rows.number(13), rows.number(14), rows.number(15) != 0,
                          Section{static_cast<uint64_t>(rows.number(16)),
                                  static_cast<uint64_t>(rows.number(17))}});
    }
    return tracks;
}

std::vector<PlaylistFile> read_playlists(Statement& rows) {
    std::vector<PlaylistFile> playlists;
    while (rows.step()) {
        playlists.push_back(
            {rows.text(2), join_path(join_path(rows.text(0), rows.text(1)), rows.text(2))});
    }
    return playlists;
}

// What stands on the page of those that the index `words` finds, by id: all of a better grade come
// first, those of one grade by id.
std::vector<int64_t> ids_of(Database& database, const std::string& words, const Grades& grades,
                            LibraryView::Page page) {
    const auto wanted = static_cast<size_t>(page.first + page.count);
    std::vector<int64_t> ids;
    std::unordered_set<int64_t> seen;
    Statement rows =
        database.prepare("SELECT rowid FROM " + words + " WHERE " + words + " MATCH ? LIMIT ?");
    for (const std::string& match : grades.match) {
        rows.with(match, page.first + page.count);
        while (ids.size() < wanted && rows.step()) {
            if (seen.insert(rows.number(0)).second) {
                ids.push_back(rows.number(0));
            }
        }
    }
    rows.reset();
    ids.erase(ids.begin(), ids.begin() + std::min<std::ptrdiff_t>(page.first, std::ssize(ids)));
    return ids;
}

// Each of these things, by a question whose last condition is the id; in their order.
template <typename Thing, typename Read>
std::vector<Thing> read_each(Database& database, const std::vector<int64_t>& ids,
                             const std::string& question, Read read) {
    std::vector<Thing> things;
    Statement rows = database.prepare(question + " = ?");
    for (const int64_t id : ids) {
        std::ranges::move(read(rows.with(id)), std::back_inserter(things));
    }
    return things;
}

int64_t count_of(Database& database, const std::string& words, const Grades& grades) {
    Statement row =
        database.prepare("SELECT count(*) FROM " + words + " WHERE " + words + " MATCH ?");
    return row.with(grades.widest()).step() ? row.number(0) : 0;
}

}  // namespace

template <typename Question>
auto LibraryView::ask(Question question) {
    const std::scoped_lock lock(m_mutex);
    try {
        if (!m_database) {
            m_database.emplace(m_path);
        }
        return question(*m_database);
    } catch (const DatabaseError& error) {
        if (error.is_damage()) {
            m_on_damage(error);
        }
        throw;
    }
}

void LibraryView::replace_file(const std::function<void()>& replace) {
    const std::scoped_lock lock(m_mutex);
    m_database.reset();
    replace();
}

template <typename Value>
std::vector<Track> LibraryView::tracks(const std::string& condition, const Value& value,
                                       int64_t limit) {
    return ask([&](Database& database) {
        Statement rows = database.prepare(kTrackColumns + condition);
        return read_tracks(rows.with(value, limit));
    });
}

std::vector<UnreadableFile> LibraryView::unreadable(int64_t limit) {
    return ask([&](Database& database) {
        Statement rows = database.prepare(
            "SELECT root, below, tracks.name, failure FROM tracks JOIN folders"
            " ON folders.id = tracks.folder WHERE failure != '' ORDER BY root, below, tracks.name"
            " LIMIT ?");
        rows.with(limit);
        std::vector<UnreadableFile> files;
        while (rows.step()) {
            files.push_back(
                {join_path(join_path(rows.text(0), rows.text(1)), rows.text(2)), rows.text(3)});
        }
        return files;
    });
}

// What stands on the page is found first, as to count an album's tracks takes longer.
std::vector<Album> LibraryView::albums(Page page, const AlbumList& list) {
    const OrderRow& order = kOrders[static_cast<size_t>(list.order)];
    std::string found = "SELECT albums.id FROM albums";
    found += order.of_artists ? " LEFT JOIN artists ON artists.id = albums.artist" : "";
    found += std::string(" WHERE ") + order.key + " >= ?3";
    found += list.kind ? " AND albums.id IN (SELECT album FROM tracks WHERE " +
                             std::string(column_of(*list.kind)) + " = ?4)"
                       : " AND ?4 = ''";
    return ask([&](Database& database) {
        const std::string by = std::string(" ORDER BY ") + order.by;
        Statement rows = database.prepare(kAlbumColumns + ("WHERE albums.id IN (" + found) + by +
                                          " LIMIT ?1 OFFSET ?2)" + by);
        return read_albums(
            rows.with(page.count, page.first, order.has_letters ? list.from : "", list.shelf));
    });
}

std::vector<Shelf> LibraryView::shelves(ShelfKind kind, Page page) {
    return ask([&](Database& database) {
        const std::string name = column_of(kind);
        Statement rows =
            database.prepare("SELECT " + name + ", count(DISTINCT album) FROM tracks WHERE " +
                             name + " != '' GROUP BY " + name + " LIMIT ? OFFSET ?");
        rows.with(page.count, page.first);
        std::vector<Shelf> shelves;
        while (rows.step()) {
            shelves.push_back({rows.text(0), rows.number(1)});
        }
        return shelves;
    });
}

std::vector<Album> LibraryView::albums_of_artist(int64_t artist) {
    return ask([&](Database& database) {
        Statement rows = database.prepare(
            std::string(kAlbumColumns) +
            "WHERE albums.artist = ?1 OR albums.id IN (SELECT album FROM tracks WHERE artist = ?1)"
            " ORDER BY year, albums.title COLLATE NOCASE LIMIT 500");
        return read_albums(rows.with(artist));
    });
}

std::vector<Artist> LibraryView::artists(Page page, const std::string& from) {
    return ask([&](Database& database) {
        Statement rows = database.prepare(std::string(kArtistColumns) +
                                          "WHERE name != '' AND name COLLATE NOCASE >= ?3"
                                          " ORDER BY name COLLATE NOCASE LIMIT ?1 OFFSET ?2");
        return read_artists(rows.with(page.count, page.first, from));
    });
}

std::string LibraryView::artist_name(int64_t id) {
    return ask([&](Database& database) {
        Statement row = database.prepare("SELECT name FROM artists WHERE id = ?");
        return row.with(id).step() ? row.text(0) : std::string();
    });
}

std::optional<Album> LibraryView::album(int64_t id) {
    return ask([&](Database& database) {
        Statement row = database.prepare(std::string(kAlbumColumns) + "WHERE albums.id = ?");
        return row.with(id).step() ? std::optional(read_album(row)) : std::nullopt;
    });
}

FolderPage LibraryView::folder(int64_t id) {
    FolderPage page;
    ask([&](Database& database) {
        Statement own = database.prepare("SELECT id, parent, name FROM folders WHERE id = ?");
        if (own.with(id).step()) {
            page = {own.number(0), own.number(1), own.text(2), {}, {}};
        }
        Statement rows = database.prepare(
            "SELECT id, name FROM folders WHERE parent = ? ORDER BY name COLLATE NOCASE");
        rows.with(id);
        while (rows.step()) {
            page.folders.push_back({rows.number(0), rows.text(1)});
        }
    });
    page.tracks = tracks("WHERE tracks.folder = ? ORDER BY tracks.name, part LIMIT ?", id, 5000);
    return page;
}

std::optional<FolderPlace> LibraryView::place_of(int64_t folder) {
    return ask([&](Database& database) {
        Statement row = database.prepare("SELECT root, below FROM folders WHERE id = ?");
        return row.with(folder).step() ? std::optional(FolderPlace{row.text(0), row.text(1)})
                                       : std::nullopt;
    });
}

std::optional<int64_t> LibraryView::folder_at(const std::string& root, const std::string& below) {
    return ask([&](Database& database) {
        Statement row = database.prepare("SELECT id FROM folders WHERE root = ? AND below = ?");
        return row.with(root, below).step() ? std::optional(row.number(0)) : std::nullopt;
    });
}

std::optional<Track> LibraryView::track(int64_t id) {
    const std::vector<Track> found = tracks("WHERE tracks.id = ? LIMIT ?", id, 1);
    return found.empty() ? std::nullopt : std::optional(found.front());
}

std::vector<Track> LibraryView::tracks_of(const std::vector<int64_t>& ids) {
    return ask([&](Database& database) {
        return read_each<Track>(database, ids, std::string(kTrackColumns) + "WHERE tracks.id",
                                read_tracks);
    });
}

std::vector<PlaylistFile> LibraryView::playlists(Page page) {
    return ask([&](Database& database) {
        Statement rows =
            database.prepare(std::string(kPlaylistColumns) +
                             "ORDER BY playlists.name COLLATE NOCASE LIMIT ? OFFSET ?");
        return read_playlists(rows.with(page.count, page.first));
    });
}

std::vector<Track> LibraryView::tracks_at(const std::string& root, const std::string& below) {
    const size_t slash = below.rfind('/');
    const std::string folder = slash == std::string::npos ? "" : below.substr(0, slash);
    const std::string name = slash == std::string::npos ? below : below.substr(slash + 1);
    return ask([&](Database& database) {
        Statement rows = database.prepare(std::string(kTrackColumns) +
                                          "WHERE root = ?1 AND below = ?2 AND"
                                          " (tracks.name = ?3 OR sheet = ?3)"
                                          " ORDER BY tracks.name, part");
        return read_tracks(rows.with(root, folder, name));
    });
}

std::vector<Track> LibraryView::tracks_of_album(int64_t album, int64_t limit) {
    return tracks("WHERE tracks.album = ? ORDER BY disc, number, tracks.name, part LIMIT ?", album,
                  limit);
}

std::vector<Track> LibraryView::tracks_of_artist(int64_t artist, int64_t limit) {
    return tracks(
        "WHERE tracks.artist = ?1 OR albums.artist = ?1"
        " ORDER BY albums.year, albums.title, disc, number, tracks.name, part LIMIT ?2",
        artist, limit);
}

std::vector<Track> LibraryView::tracks_on(ShelfKind kind, const std::string& shelf, int64_t limit) {
    return tracks(std::string("WHERE tracks.") + column_of(kind) +
                      " = ?1 ORDER BY albums.title, tracks.album, disc, number, tracks.name, part"
                      " LIMIT ?2",
                  shelf, limit);
}

std::vector<Track> LibraryView::tracks_below(int64_t folder, int64_t limit) {
    return tracks(
        "JOIN folders AS top ON top.id = ?1 WHERE folders.root = top.root AND (top.below = '' OR"
        " folders.below = top.below OR substr(folders.below, 1, length(top.below) + 1) ="
        " top.below || '/') ORDER BY folders.below, disc, number, tracks.name, part LIMIT ?2",
        folder, limit);
}

Found LibraryView::search(const std::string& text, Page page, Kind kind) {
    const Grades grades = grades_of(text);
    Found found;
    if (grades.is_empty()) {
        return found;
    }
    const auto is_wanted = [kind](Kind one) { return kind == Kind::all || kind == one; };
    return ask([&](Database& database) {
        database.run("BEGIN");  // one state of the library for all of it
        found.artist_count = count_of(database, "artist_words", grades);
        found.album_count = count_of(database, "album_words", grades);
        found.track_count = count_of(database, "track_words", grades);
        found.playlist_count = count_of(database, "playlist_words", grades);
        if (is_wanted(Kind::artists)) {
            found.artists =
                read_each<Artist>(database, ids_of(database, "artist_words", grades, page),
                                  std::string(kArtistColumns) + "WHERE id", read_artists);
        }
        if (is_wanted(Kind::albums)) {
            found.albums =
                read_each<Album>(database, ids_of(database, "album_words", grades, page),
                                 std::string(kAlbumColumns) + "WHERE albums.id", read_albums);
        }
        if (is_wanted(Kind::tracks)) {
            found.tracks =
                read_each<Track>(database, ids_of(database, "track_words", grades, page),
                                 std::string(kTrackColumns) + "WHERE tracks.id", read_tracks);
        }
        if (is_wanted(Kind::playlists)) {
            found.playlists = read_each<PlaylistFile>(
                database, ids_of(database, "playlist_words", grades, page),
                std::string(kPlaylistColumns) + "WHERE playlists.id", read_playlists);
        }
        database.run("COMMIT");
        return found;
    });
}

}  // namespace nuvio::controller
