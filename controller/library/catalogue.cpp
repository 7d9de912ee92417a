#include "controller/library/catalogue.h"

#include <unistd.h>

#include <algorithm>
#include <ctime>
#include <utility>

#include "controller/library/words.h"

namespace nuvio::controller {

namespace {

constexpr int64_t kVersion = 8;

// An album is what has one title and one album artist, or, where no album artist is said, one title
// in one folder. `artist` null: several. A row is a whole file (`part` 0) or one of its
// tracks by a sheet (from 1 on), in microseconds; an end of -1 is the file's.
constexpr char kSchema[] = R"(
BEGIN;
CREATE TABLE folders(id INTEGER PRIMARY KEY AUTOINCREMENT, root TEXT NOT NULL, below TEXT NOT NULL,
    name TEXT NOT NULL, parent INTEGER NOT NULL, device INTEGER NOT NULL DEFAULT 0,
    UNIQUE(root, below));
CREATE INDEX folders_by_parent ON folders(parent, name);
CREATE TABLE artists(id INTEGER PRIMARY KEY AUTOINCREMENT, name TEXT NOT NULL UNIQUE);
CREATE TABLE albums(id INTEGER PRIMARY KEY AUTOINCREMENT, title TEXT NOT NULL, artist INTEGER,
    maker TEXT NOT NULL, year INTEGER NOT NULL, added INTEGER NOT NULL DEFAULT 0,
    UNIQUE(title, maker));
CREATE INDEX albums_by_artist ON albums(artist);
CREATE INDEX albums_by_title ON albums(title COLLATE NOCASE);
CREATE INDEX albums_by_year ON albums(year, title COLLATE NOCASE);
CREATE INDEX albums_by_added ON albums(added);
CREATE TABLE tracks(id INTEGER PRIMARY KEY AUTOINCREMENT, folder INTEGER NOT NULL,
    name TEXT NOT NULL, size INTEGER NOT NULL, modified INTEGER NOT NULL, title TEXT NOT NULL,
    artist INTEGER NOT NULL, album INTEGER NOT NULL, disc INTEGER NOT NULL, number INTEGER NOT NULL,
    duration INTEGER NOT NULL, rate INTEGER NOT NULL, channels INTEGER NOT NULL,
    bits INTEGER NOT NULL, failure TEXT NOT NULL, part INTEGER NOT NULL, begin_us INTEGER NOT NULL,
    end_us INTEGER NOT NULL, sheet TEXT NOT NULL, sheets INTEGER NOT NULL,
    genre TEXT NOT NULL COLLATE NOCASE, composer TEXT NOT NULL COLLATE NOCASE,
    added INTEGER NOT NULL, UNIQUE(folder, name, part));
CREATE INDEX tracks_by_album ON tracks(album, disc, number);
CREATE INDEX tracks_by_artist ON tracks(artist);
CREATE INDEX tracks_by_genre ON tracks(genre, album);
CREATE INDEX tracks_by_composer ON tracks(composer, album);
CREATE INDEX unreadable_tracks ON tracks(id) WHERE failure != '';
CREATE TABLE playlists(id INTEGER PRIMARY KEY AUTOINCREMENT, folder INTEGER NOT NULL,
    name TEXT NOT NULL, UNIQUE(folder, name));
CREATE INDEX playlists_by_name ON playlists(name COLLATE NOCASE);
CREATE VIRTUAL TABLE track_words USING fts5(title, artist, album, more, whole,
    tokenize = 'unicode61 remove_diacritics 2', prefix = '1 2 3 4');
CREATE VIRTUAL TABLE album_words USING fts5(title, artist, more, whole,
    tokenize = 'unicode61 remove_diacritics 2', prefix = '1 2 3 4');
CREATE VIRTUAL TABLE artist_words USING fts5(title, whole,
    tokenize = 'unicode61 remove_diacritics 2', prefix = '1 2 3 4');
CREATE VIRTUAL TABLE playlist_words USING fts5(title, whole,
    tokenize = 'unicode61 remove_diacritics 2', prefix = '1 2 3 4');
INSERT INTO sqlite_sequence(name, seq) VALUES('tracks', abs(random() % 2000000000)),
    ('albums', abs(random() % 2000000000));
PRAGMA user_version = 8;
COMMIT;
)";

Database opened(const std::string& path) {
    Database database(path);
    database.add_function("folded", folded);
    database.add_function("as_one_word", as_one_word);
    if (!database.prepare("SELECT 1 FROM sqlite_master").step()) {
        database.run(kSchema);
        return database;
    }
    if (database.user_version() != kVersion) {
        throw DatabaseError(SQLITE_NOTADB, "its file is of another version");
    }
    Statement check = database.prepare("PRAGMA quick_check(1)");
    if (check.step() && check.text(0) != "ok") {
        throw DatabaseError(SQLITE_CORRUPT, check.text(0));
    }
    return database;
}

reader::Tags tags_of(const reader::SheetTrack& track, const reader::Tags& file) {
    reader::Tags tags = file;
    for (const auto& [text, said] : {std::pair(&tags.title, &track.title),
                                     {&tags.artist, &track.artist},
                                     {&tags.album, &track.album},
                                     {&tags.album_artist, &track.album_artist}}) {
        *text = said->empty() ? *text : *said;
    }
    tags.number = track.number;
    tags.disc = track.disc > 0 ? track.disc : file.disc;
    tags.year = track.year > 0 ? track.year : file.year;
    const auto length_us = static_cast<uint64_t>(file.duration_ms) * 1000;
    const uint64_t end_us = std::min(track.section.end_us, length_us);
    tags.duration_ms =
        static_cast<int64_t>((end_us - std::min(end_us, track.section.begin_us)) / 1000);
    return tags;
}

}  // namespace

Catalogue::Catalogue(const std::string& path)
    : m_database(opened(path)),
      m_find_folder(m_database.prepare("SELECT id FROM folders WHERE root = ? AND below = ?")),
      m_add_folder(
          m_database.prepare("INSERT INTO folders(root, below, name, parent) VALUES(?, ?, ?, ?)")),
      m_folder_at(m_database.prepare("SELECT root, below FROM folders WHERE id = ?")),
      m_device_of(m_database.prepare("SELECT device FROM folders WHERE id = ?")),
      m_set_device(m_database.prepare("UPDATE folders SET device = ?2 WHERE id = ?1")),
      m_files_in(m_database.prepare(
          "SELECT DISTINCT name, size, modified, sheets FROM tracks WHERE folder = ?")),
      m_folders_in(m_database.prepare("SELECT name, id FROM folders WHERE parent = ?")),
      m_find_artist(m_database.prepare("SELECT id FROM artists WHERE name = ?")),
      m_add_artist(m_database.prepare("INSERT INTO artists(name) VALUES(?)")),
      m_find_album(m_database.prepare("SELECT id FROM albums WHERE title = ? AND maker = ?")),
      m_add_album(
          m_database.prepare("INSERT INTO albums(title, maker, artist, year) VALUES(?, ?, ?, ?)")),
      m_put(m_database.prepare(
          "INSERT INTO tracks(folder, name, size, modified, title, artist, album, disc, number,"
          " duration, rate, channels, bits, failure, part, begin_us, end_us, sheet, sheets, genre,"
          " composer, added) VALUES(?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?,"
          " ?)"
          " ON CONFLICT(folder, name, part) DO UPDATE SET size = excluded.size,"
          " modified = excluded.modified, title = excluded.title, artist = excluded.artist,"
          " album = excluded.album, disc = excluded.disc, number = excluded.number,"
          " duration = excluded.duration, rate = excluded.rate, channels = excluded.channels,"
          " bits = excluded.bits, failure = excluded.failure,"
          " begin_us = excluded.begin_us, end_us = excluded.end_us, sheet = excluded.sheet,"
          " sheets = excluded.sheets, genre = excluded.genre, composer = excluded.composer"
          " RETURNING id")),
      m_unword(m_database.prepare("DELETE FROM track_words WHERE rowid = ?")),
      m_word(m_database.prepare("INSERT INTO track_words(rowid, title, artist, album, more, whole) "
                                "VALUES(?, ?, ?, ?, ?, ?)")),
      m_unword_parts(
          m_database.prepare("DELETE FROM track_words WHERE rowid IN (SELECT id FROM tracks"
                             " WHERE folder = ? AND name = ? AND part NOT BETWEEN ? AND ?)")),
      m_remove_parts(m_database.prepare(
          "DELETE FROM tracks WHERE folder = ? AND name = ? AND part NOT BETWEEN ? AND ?")),
      m_playlists_in(m_database.prepare("SELECT name FROM playlists WHERE folder = ?")),
      m_add_playlist(m_database.prepare("INSERT INTO playlists(folder, name) VALUES(?, ?)")),
      m_remove_playlist(m_database.prepare("DELETE FROM playlists WHERE folder = ? AND name = ?")),
      m_remove_folder(m_database.prepare("DELETE FROM folders WHERE id = ?")),
      m_is_new(track_count() == 0) {}

void Catalogue::remove(const std::string& path) {
    for (const char* end : {"", "-wal", "-shm"}) {
        unlink((path + end).c_str());
    }
}

void Catalogue::keep_only(const std::vector<std::string>& roots) {
    std::vector<int64_t> unwanted;
    Statement all = m_database.prepare("SELECT id, root FROM folders WHERE parent = 0");
    while (all.step()) {
        if (std::ranges::find(roots, all.text(1)) == roots.end()) {
            unwanted.push_back(all.number(0));
        }
    }
    all.reset();
    std::vector<int64_t> gone;
    for (const int64_t id : unwanted) {
        remove_folder(id, &gone);
    }
}

int64_t Catalogue::folder(const std::string& root, const std::string& below, std::string_view name,
                          int64_t parent) {
    if (m_find_folder.with(root, below).step()) {
        const int64_t id = m_find_folder.number(0);
        m_find_folder.reset();
        return id;
    }
    m_add_folder.with(root, below, name, parent).run();
    return m_database.last_id();
}

Catalogue::Folder Catalogue::folder_at(int64_t id) {
    Folder folder{0, {}, {}};
    if (m_folder_at.with(id).step()) {
        folder = {id, m_folder_at.text(0), m_folder_at.text(1)};
    }
    m_folder_at.reset();
    return folder;
}

int64_t Catalogue::device_of(int64_t folder) {
    const int64_t device = m_device_of.with(folder).step() ? m_device_of.number(0) : 0;
    m_device_of.reset();
    return device;
}

void Catalogue::set_device(int64_t folder, int64_t device) {
    m_set_device.with(folder, device).run();
}

std::map<std::string, Catalogue::KnownFile> Catalogue::files_in(int64_t folder) {
    std::map<std::string, KnownFile> files;
    m_files_in.with(folder);
    while (m_files_in.step()) {
        files[m_files_in.text(0)] = {m_files_in.number(1), m_files_in.number(2),
                                     m_files_in.number(3)};
    }
    m_files_in.reset();
    return files;
}

std::map<std::string, int64_t> Catalogue::folders_in(int64_t folder) {
    std::map<std::string, int64_t> folders;
    m_folders_in.with(folder);
    while (m_folders_in.step()) {
        folders[m_folders_in.text(0)] = m_folders_in.number(1);
    }
    m_folders_in.reset();
    return folders;
}

int64_t Catalogue::put_playlists(int64_t folder, const std::set<std::string>& names) {
    std::set<std::string> known;
    m_playlists_in.with(folder);
    while (m_playlists_in.step()) {
        known.insert(m_playlists_in.text(0));
    }
    m_playlists_in.reset();
    int64_t changed = 0;
    for (const std::string& name : names) {
        if (!known.contains(name)) {
            m_add_playlist.with(folder, name).run();
            ++changed;
        }
    }
    for (const std::string& name : known) {
        if (!names.contains(name)) {
            m_remove_playlist.with(folder, name).run();
            ++changed;
        }
    }
    return changed;
}

int64_t Catalogue::artist(const std::string& name) {
    const bool is_known = m_find_artist.with(name).step();
    const int64_t id = is_known ? m_find_artist.number(0) : 0;
    m_find_artist.reset();
    if (is_known) {
        return id;
    }
    m_add_artist.with(name).run();
    return m_database.last_id();
}

int64_t Catalogue::album(const std::string& title, const std::string& album_artist, int64_t folder,
                         uint32_t year) {
    const std::string maker =
        album_artist.empty() ? "/" + std::to_string(folder) : "=" + album_artist;
    const bool is_known = m_find_album.with(title, maker).step();
    const int64_t id = is_known ? m_find_album.number(0) : 0;
    m_find_album.reset();
    if (is_known) {
        return id;
    }
    const int64_t by = album_artist.empty() ? 0 : artist(album_artist);
    m_add_album.with(title, maker, by, year).run();
    return m_database.last_id();
}

// Where a track is.
struct Catalogue::Place {
    int64_t folder;
    std::string_view folder_name;
    const std::string& name;
    size_t part = 0;
    Section section{};
    std::string sheet{};
};

void Catalogue::put(int64_t folder, std::string_view folder_name, const std::string& name,
                    const KnownFile& file, const reader::Tags& tags,
                    const reader::FolderSheets::Parts& parts, const std::string& failure) {
    const size_t first = parts.tracks.empty() ? 0 : 1;
    remove_parts_outside(folder, name, first, parts.tracks.size());
    if (parts.tracks.empty()) {
        return put_track({folder, folder_name, name}, file, tags, failure);
    }
    for (size_t i = 0; i < parts.tracks.size(); ++i) {
        const reader::SheetTrack& track = parts.tracks[i];
        put_track({folder, folder_name, name, i + 1, track.section, parts.sheet}, file,
                  tags_of(track, tags), failure);
    }
}

void Catalogue::put_track(const Place& place, const KnownFile& file, const reader::Tags& tags,
                          const std::string& failure) {
    const std::string title =
        tags.title.empty() ? place.name.substr(0, place.name.rfind('.')) : tags.title;
    const std::string album_title =
        tags.album.empty() ? std::string(place.folder_name) : tags.album;
    const int64_t artist_id = artist(tags.artist);
    const int64_t album_id = album(album_title, tags.album_artist, place.folder, tags.year);
    m_put.with(
        place.folder, place.name, file.size, file.modified_ns, title, artist_id, album_id,
        tags.disc, tags.number, tags.duration_ms, tags.rate_hz, tags.channels, tags.bits, failure,
        static_cast<int64_t>(place.part), static_cast<int64_t>(place.section.begin_us),
        static_cast<int64_t>(place.section.end_us), place.sheet, file.sheets, tags.genre,
        tags.composer, m_is_new ? file.modified_ns / 1'000'000'000 : int64_t{std::time(nullptr)});
    const int64_t id = m_put.step() ? m_put.number(0) : 0;
    m_put.run();
    m_unword.with(id).run();
    const std::string year = tags.year > 0 ? std::to_string(tags.year) + " " : "";
    m_word
        .with(id, folded(title), folded(tags.artist), folded(album_title),
              folded(year + tags.genre + " " + tags.composer), as_one_word(title))
        .run();
}

void Catalogue::remove_file(int64_t folder, const std::string& name) {
    remove_parts_outside(folder, name, 1, 0);
}

void Catalogue::remove_parts_outside(int64_t folder, const std::string& name, size_t first,
                                     size_t last) {
    for (Statement* const remove : {&m_unword_parts, &m_remove_parts}) {
        remove->with(folder, name, static_cast<int64_t>(first), static_cast<int64_t>(last)).run();
    }
}

void Catalogue::remove_folder(int64_t id, std::vector<int64_t>* gone) {
    for (const auto& [name, child] : folders_in(id)) {
        remove_folder(child, gone);
    }
    for (const auto& [name, file] : files_in(id)) {
        remove_file(id, name);
    }
    put_playlists(id, {});
    m_remove_folder.with(id).run();
    gone->push_back(id);
}

int64_t Catalogue::count(const char* what) {
    Statement row = m_database.prepare(std::string("SELECT count(*) FROM ") + what);
    return row.step() ? row.number(0) : 0;
}

void Catalogue::tidy() {
    m_database.run(R"(
        DELETE FROM albums WHERE id NOT IN (SELECT album FROM tracks);
        UPDATE albums SET artist = one.artist FROM
            (SELECT album, CASE WHEN min(artist) = max(artist) THEN min(artist) END AS artist
             FROM tracks GROUP BY album) AS one
            WHERE one.album = albums.id AND maker LIKE '/%' AND albums.artist IS NOT one.artist;
        UPDATE albums SET added = one.added FROM
            (SELECT album, max(added) AS added FROM tracks GROUP BY album) AS one
            WHERE one.album = albums.id AND albums.added != one.added;
        DELETE FROM artists WHERE id NOT IN (SELECT artist FROM tracks)
            AND id NOT IN (SELECT artist FROM albums WHERE artist IS NOT NULL);
        DELETE FROM album_words;
        INSERT INTO album_words(rowid, whole, title, artist, more) SELECT albums.id,
            as_one_word(title), folded(title),
            folded(coalesce(name, '')), folded(year || ' ' || genres || ' ' || composers)
            FROM albums LEFT JOIN artists ON artists.id = albums.artist
            JOIN (SELECT album, group_concat(DISTINCT genre) AS genres,
                group_concat(DISTINCT composer) AS composers FROM tracks GROUP BY album)
            ON album = albums.id;
        DELETE FROM artist_words;
        INSERT INTO artist_words(rowid, whole, title) SELECT id, as_one_word(name), folded(name)
            FROM artists;
        DELETE FROM playlist_words;
        INSERT INTO playlist_words(rowid, whole, title) SELECT id, as_one_word(name), folded(name)
            FROM playlists;
    )");
}

}  // namespace nuvio::controller
