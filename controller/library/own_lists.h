// What people keep here: playlists, each an M3U file, and stations, the entries of one more. Other
// programs may read and change them too.
//
//   FOLDER/playlists/NAME.m3u8
//   FOLDER/stations.m3u8
//
// Names    any text; what is kept of it (clean_name) is one line and no path.
// Threads  any; one change at a time. Each call waits for the disk.
// Errors   a text for people; empty: it was done. A file is the old or the new one, also after a
//          power cut.
#pragma once

#include <atomic>
#include <cstdint>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "common/m3u.h"

namespace nuvio::controller {

// At most 100 bytes; empty: there is nothing in it that could be a name.
std::string clean_name(std::string_view text);

class OwnLists {
  public:
    static constexpr size_t kMost = 1000;  // playlists, and stations

    using Change = std::string (OwnLists::*)(const std::string& name);
    using Rename = std::string (OwnLists::*)(const std::string& name, const std::string& to);

    explicit OwnLists(std::string folder) : m_folder(std::move(folder)) {}

    // Grows with each change that is made here.
    int64_t revision() const { return m_revision; }

    // By name.
    std::vector<std::string> playlists() const;
    // None: no such playlist.
    std::optional<std::vector<PlaylistEntry>> entries(const std::string& playlist,
                                                      size_t most) const;
    // A new one.
    std::string save(const std::string& playlist, const std::vector<PlaylistEntry>& entries);
    std::string rename(const std::string& playlist, const std::string& to);
    // The last one that was removed can be had back.
    std::string remove(const std::string& playlist);
    std::string restore(const std::string& playlist);

    // By name; the location of each is its address.
    std::vector<PlaylistEntry> stations() const;
    std::string add_station(const std::string& name, const std::string& url);
    std::string rename_station(const std::string& name, const std::string& to);
    std::string remove_station(const std::string& name);

  private:
    std::string path_of(const std::string& playlist) const;
    std::string removed_path_of(const std::string& playlist) const;
    struct Names {
        const std::string &before, &after;
    };
    std::string move(const std::string& from, const std::string& to, const Names& names);
    std::string done(int error, const std::string& what);
    std::string write_stations(const std::vector<PlaylistEntry>& stations);

    const std::string m_folder;
    std::mutex m_writing;
    std::atomic<int64_t> m_revision{0};
};

}  // namespace nuvio::controller
