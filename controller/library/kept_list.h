// A list of tracks or of albums that is kept by the paths of their files, so that it is known also
// when the library, a cache, was made anew.
//
//   PATH   an M3U file, the newest first; an album's entry is the file of one of its tracks, and
//          the album's title
//
// Threads  any. Waits for the disk, but for revision().
// Errors   a text for people; empty: it was done. A file that is there and can't be read is not
//          written over.
#pragma once

#include <atomic>
#include <cstdint>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "common/m3u.h"
#include "controller/library/library_view.h"

namespace nuvio::controller {

// What an M3U file has of a track: its file or a part of it, and who plays what.
PlaylistEntry entry_of(const Track& track);

class KeptList {
  public:
    enum class Of { tracks, albums };

    // At most `most` entries.
    KeptList(std::string path, Of of, size_t most);

    // The track or its album becomes the first one, or stays so; beyond `most` the last one goes.
    std::string put_first(const Track& track);
    // The same of one that is not there yet; a full list takes no more.
    std::string add(const Track& track);
    // Takes out what any of these tracks stands for.
    std::string remove(const std::vector<Track>& tracks);

    bool has(const Track& track) const;
    std::vector<PlaylistEntry> entries() const;
    // Grows when they are others, or in another order.
    int64_t revision() const { return m_revision; }

  private:
    PlaylistEntry entry_for(const Track& track) const;
    std::string key_of(const PlaylistEntry& entry) const;
    std::string replace(std::vector<PlaylistEntry> entries);

    const std::string m_path;
    const Of m_of;
    const size_t m_most;
    int m_error = 0;  // errno value: why it was not read
    mutable std::mutex m_mutex;
    std::vector<PlaylistEntry> m_entries;  // under m_mutex, and so the next ones
    std::set<std::string> m_keys;          // of all entries
    std::atomic<int64_t> m_revision{0};
};

}  // namespace nuvio::controller
