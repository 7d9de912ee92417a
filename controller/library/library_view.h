// Reading the library: what there is, page by page, and the search.
//
// Threads  any; one question at a time, each on a snapshot of its own. Waits for the disk.
// Errors   DatabaseError. Unknown ids lead to empty answers.
// File     opened with the first question, and with the first one after it was replaced.
#pragma once

#include <cstdint>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "common/music/section.h"
#include "controller/library/database.h"

namespace nuvio::controller {

struct Track {
    int64_t id = 0;
    std::string title, artist, album;
    int64_t album_id = 0, artist_id = 0;
    std::string root, below;  // music folder, and path below it
    int64_t disc = 0, number = 0, duration_ms = 0, rate_hz = 0, channels = 0, bits = 0;
    bool is_readable = true;
    Section section;  // of the file
};

struct Album {
    int64_t id = 0;
    std::string title, artist;  // artist empty: several, or not said
    int64_t artist_id = 0, year = 0, track_count = 0;
};

struct Artist {
    int64_t id = 0;
    std::string name;  // empty: not said
    int64_t album_count = 0;
};

// A genre or a composer.
struct Shelf {
    std::string name;
    int64_t album_count = 0;
};

struct SubFolder {
    int64_t id = 0;
    std::string name;
};

struct FolderPlace {
    std::string root, below;  // music folder, and path below it
};

struct FolderPage {
    int64_t id = 0, parent = 0;
    std::string name;
    std::vector<SubFolder> folders;
    std::vector<Track> tracks;
};

struct PlaylistFile {
    std::string name;
    std::string what;  // for Library::select: its path, say
};

struct Found {
    std::vector<Artist> artists;
    std::vector<Album> albums;
    std::vector<Track> tracks;
    std::vector<PlaylistFile> playlists;
    int64_t artist_count = 0, album_count = 0, track_count = 0, playlist_count = 0;  // in all
};

struct UnreadableFile {
    std::string path, failure;
};

class LibraryView {
  public:
    // Of the file that a Catalogue has made. `on_damage` is called from within a question that
    // finds it damaged, before this throws; it must not ask.
    LibraryView(std::string path, std::function<void(const DatabaseError&)> on_damage)
        : m_path(std::move(path)), m_on_damage(std::move(on_damage)) {}

    // Lets go of the file and calls `replace`, which puts another in its place; questions wait.
    // What it throws goes through.
    void replace_file(const std::function<void()>& replace);

    struct Page {
        int64_t first = 0;
        int64_t count = 100;
    };

    enum class Order { title, artist, year, added };  // the newest first in the latter two
    enum class ShelfKind { genre, composer };
    struct AlbumList {
        Order order = Order::title;
        std::string from = {};  // by title or artist: not what comes before it
        std::optional<ShelfKind> kind = {};
        std::string shelf = {};  // with a track of that kind alone
    };
    std::vector<Album> albums(Page page) { return albums(page, {}); }
    std::vector<Album> albums(Page page, const AlbumList& list);
    // His own, and those that he plays on, by year.
    std::vector<Album> albums_of_artist(int64_t artist);
    // By name, not what comes before `from`.
    std::vector<Artist> artists(Page page, const std::string& from = {});
    std::vector<Shelf> shelves(ShelfKind kind, Page page);
    std::string artist_name(int64_t id);
    std::optional<Album> album(int64_t id);
    // 0: the music folders.
    FolderPage folder(int64_t id);
    std::optional<FolderPlace> place_of(int64_t folder);
    // The folder's id at a place below a music folder.
    std::optional<int64_t> folder_at(const std::string& root, const std::string& below);

    std::optional<Track> track(int64_t id);
    // Of an audio file, or of a CUE sheet beside its file.
    std::vector<Track> tracks_at(const std::string& root, const std::string& below);
    // In playing order, at most `limit`.
    std::vector<Track> tracks_of_album(int64_t album, int64_t limit);
    std::vector<Track> tracks_of_artist(int64_t artist, int64_t limit);
    std::vector<Track> tracks_on(ShelfKind kind, const std::string& shelf, int64_t limit);
    std::vector<Track> tracks_below(int64_t folder, int64_t limit);

    // In the order of the ids; what is no longer there is left out.
    std::vector<Track> tracks_of(const std::vector<int64_t>& ids);

    // The M3U files of the music folders, by name.
    std::vector<PlaylistFile> playlists(Page page);

    // Files of which nothing could be read, by their paths.
    std::vector<UnreadableFile> unreadable(int64_t limit);

    enum class Kind { all, artists, albums, tracks, playlists };
    // What has all words of the text (words.h), each as the beginning of a word of title, names,
    // year or genre; the best first. One page of each kind, or of the one.
    Found search(const std::string& text, Page page, Kind kind = Kind::all);

  private:
    template <typename Question>
    auto ask(Question question);
    template <typename Value>
    std::vector<Track> tracks(const std::string& condition, const Value& value, int64_t limit);

    const std::string m_path;
    const std::function<void(const DatabaseError&)> m_on_damage;
    std::mutex m_mutex;
    std::optional<Database> m_database;  // under m_mutex
};

}  // namespace nuvio::controller
