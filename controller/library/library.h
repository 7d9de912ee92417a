// The music: its folders, what is in them, and the files themselves.
//
// Threads  any. Calls wait for the disk.
// Errors   DatabaseError where the library's file fails.
#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "common/unique_fd.h"
#include "controller/library/covers.h"
#include "controller/library/kept_list.h"
#include "controller/library/library_view.h"
#include "controller/library/music_folders.h"
#include "controller/library/own_lists.h"
#include "controller/library/scanner.h"

namespace nuvio::controller {

// What can be queued: a track of the library, or what lies elsewhere on the network.
struct Playable {
    std::string url;    // empty: `track`
    std::string title;  // for a URL; possibly empty
    std::optional<Track> track;
};

// Either what was asked for, or why it can't be had.
struct Selection {
    std::vector<Playable> items;
    std::string failure;
};

class Library {
  public:
    // `state_folder` exists. `on_change` comes on the scanner's thread: progress() has changed, and
    // possibly what there is.
    Library(const std::vector<std::string>& folders, const std::string& state_folder,
            std::function<void()> on_change);

    LibraryView& view() { return m_view; }
    ScanProgress progress() const { return m_scanner.progress(); }
    void request_scan() { m_scanner.request_scan(); }
    size_t folder_count() const { return m_folders.count(); }

    struct File {
        UniqueFd fd;
        std::string_view type;  // Content-Type
    };
    // None: no such track, or its file is gone.
    std::optional<File> open_track(int64_t id);
    // Of the album's first three tracks, see Covers.
    Covers::Found open_cover(int64_t album, CoverSize size);

    // "track:ID", "album:ID", "artist:ID", "folder:ID", "genre:NAME", "composer:NAME",
    // "playlist:NAME" and "station:NAME" of the own lists, "favourites:tracks", "search:WORDS" (an
    // own list of that very name, an album, else an artist, else tracks), an http(s) URL, or a path
    // of this machine below a music folder: an audio file, a folder, an M3U playlist, a CUE sheet;
    // and what `lasting` makes. More than kMaxSelection tracks are a failure.
    Selection select(const std::string& what);
    // The same for what is kept: ids are others when the library was made anew, and so an album, an
    // artist and a track are meant by a file, "album-of:PATH" say, and a folder by its path.
    struct Lasting {
        std::string what;
        std::string title;    // for people; possibly empty
        std::string failure;  // as a Selection's
    };
    Lasting lasting(const std::string& what);

    // As LibraryView's, with the own playlists and stations before the files.
    Found search(const std::string& text, LibraryView::Page page,
                 LibraryView::Kind kind = LibraryView::Kind::all);

    static constexpr int64_t kMaxSelection = 20'000;  // as many as a device's queue takes
    static constexpr char kTooMany[] = "more than 20,000 tracks: a device takes no more at once";

    // The M3U files in a folder, as the disk has it now.
    std::vector<PlaylistFile> playlists_in(int64_t folder);

    OwnLists& own_lists() { return m_own_lists; }
    // A device plays it.
    void note_heard(const Track& track);
    // The last ones first, as far as they are in the library.
    std::vector<Album> albums_heard(LibraryView::Page page) { return albums_on(m_heard, page); }

    static constexpr int64_t kMostFavourites = 1000;  // tracks, and albums
    // "track:ID" or "album:ID" is one from now on, or none; what comes back is a failure for
    // people.
    std::string set_favourite(const std::string& what, bool is_one);
    bool is_favourite(const Track& track) const { return m_favourite_tracks.has(track); }
    bool is_favourite_album(const std::vector<Track>& its_tracks) const;
    // The newest first, as far as they are in the library.
    std::vector<Track> favourite_tracks(LibraryView::Page page);
    std::vector<Album> favourite_albums(LibraryView::Page page) {
        return albums_on(m_favourite_albums, page);
    }

    // Grows when the own lists, the albums heard or the favourites are others.
    int64_t lists_revision() const;
    // What a playlist of these is to hold; what is no longer in the library is left out.
    struct Queued {
        int64_t track = 0;       // of the library; 0: `url`
        std::string url, title;  // on the network
    };
    std::vector<PlaylistEntry> entries_of(const std::vector<Queued>& items);

  private:
    Selection selected(const std::string& what);
    std::vector<Track> tracks_by_file(const std::string& kind, const std::string& path);
    std::vector<Track> best_match(const std::string& words);
    Selection select_path(const std::string& path);
    Selection select_playlist(const MusicFolders::Place& place);
    std::optional<Selection> select_own(const std::string& kind, const std::string& name);
    Selection select_entries(const std::vector<PlaylistEntry>& entries, const std::string& folder);
    std::vector<Track> tracks_named(const std::string& path);
    std::vector<Album> albums_on(const KeptList& list, LibraryView::Page page);

    const MusicFolders m_folders;
    const std::string m_database;  // made by the time its readers open it, unless it can't be
    LibraryView m_view;
    Covers m_covers;
    OwnLists m_own_lists;
    KeptList m_heard, m_favourite_tracks, m_favourite_albums;
    std::atomic<bool> m_is_heard_failing{false};  // and it was said
    Scanner m_scanner;
};

}  // namespace nuvio::controller
