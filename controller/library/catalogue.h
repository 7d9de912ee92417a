// The library's tables as the scanner writes them: folders, tracks, albums, artists, playlists, and
// the words they are found by. A cache of what the music folders hold, so a file of another
// version, or a damaged one, may be removed and made anew.
//
// Numbers  an id is given once; those of tracks and albums, which devices keep in their queues,
//          also begin elsewhere in a file that is made anew.
// Threads  one at a time; the scanner's. Readers have connections of their own (`LibraryView`).
// Errors   DatabaseError; a file of another version counts as damaged.
#pragma once

#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "controller/library/database.h"
#include "reader/client/folder_sheets.h"
#include "reader/client/music_reader.h"

namespace nuvio::controller {

class Catalogue {
  public:
    // Makes the file where there is none; its folders exist.
    explicit Catalogue(const std::string& path);
    // The file; nobody has it open.
    static void remove(const std::string& path);

    struct KnownFile {
        int64_t size = 0;
        int64_t modified_ns = 0;
        int64_t sheets = 0;  // what the folder's CUE sheets were then; 0: there were none

        bool operator==(const KnownFile&) const = default;
    };
    struct Folder {
        int64_t id;
        std::string root;   // the music folder
        std::string below;  // path below it
    };

    // Changes between these two become visible together, and survive a crash together.
    void begin() { m_database.run("BEGIN IMMEDIATE"); }
    void commit() { m_database.run("COMMIT"); }

    // Music folders that are not in the list are forgotten with all that is in them.
    void keep_only(const std::vector<std::string>& roots);
    // The folder's id; it is made where there is none. `parent` is 0 for the music folder itself.
    int64_t folder(const std::string& root, const std::string& below, std::string_view name,
                   int64_t parent);
    Folder folder_at(int64_t id);
    // The file system (st_dev) that it was read from; 0: it never was.
    int64_t device_of(int64_t folder);
    void set_device(int64_t folder, int64_t device);
    std::map<std::string, KnownFile> files_in(int64_t folder);
    std::map<std::string, int64_t> folders_in(int64_t folder);

    // A new file, or one that has changed: its tracks keep their ids. It is one track, or, where a
    // sheet says so, several, which have of the file what the sheet does not say. `failure`: why
    // nothing of it could be read; else empty.
    void put(int64_t folder, std::string_view folder_name, const std::string& name,
             const KnownFile& file, const reader::Tags& tags,
             const reader::FolderSheets::Parts& parts, const std::string& failure);
    void remove_file(int64_t folder, const std::string& name);
    // The M3U files of the folder; how many of them came or went.
    int64_t put_playlists(int64_t folder, const std::set<std::string>& names);
    // With everything below; appends the ids of all folders that are gone.
    void remove_folder(int64_t id, std::vector<int64_t>* gone);

    int64_t track_count() { return count("tracks"); }
    int64_t unreadable_count() { return count("tracks WHERE failure != ''"); }

    // All that is there has been read: what is new from now on came now.
    void end_first_scan() { m_is_new = false; }
    // After changes: albums and artists without tracks go, an album of several artists says so.
    void tidy();

  private:
    int64_t count(const char* what);
    int64_t artist(const std::string& name);
    int64_t album(const std::string& title, const std::string& album_artist, int64_t folder,
                  uint32_t year);
    struct Place;
    void put_track(const Place& place, const KnownFile& file, const reader::Tags& tags,
                   const std::string& failure);
    void remove_parts_outside(int64_t folder, const std::string& name, size_t first, size_t last);

    Database m_database;
    Statement m_find_folder, m_add_folder, m_folder_at, m_device_of, m_set_device, m_files_in,
        m_folders_in;
    Statement m_find_artist, m_add_artist, m_find_album, m_add_album;
    Statement m_put, m_unword, m_word, m_unword_parts, m_remove_parts;
    Statement m_playlists_in, m_add_playlist, m_remove_playlist, m_remove_folder;
    bool m_is_new;  // when its tracks came is told by their files
};

}  // namespace nuvio::controller
