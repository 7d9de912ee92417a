// Which albums were heard last: of each the file of one of its tracks, so that it is known also
// when the library, a cache, was made anew.
//
//   PATH   an M3U file, the newest first; the title of an entry is the album's
//
// Threads  any. Waits for the disk.
#pragma once

#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

#include "common/m3u.h"
#include "controller/library/library_view.h"

namespace nuvio::controller {

class Heard {
  public:
    static constexpr size_t kMost = 200;

    explicit Heard(std::string path);

    // Something of it is heard now.
    void note(const Track& track);
    std::vector<PlaylistEntry> albums() const;
    // Grows when they are others, or in another order.
    int64_t revision() const;

  private:
    const std::string m_path;
    mutable std::mutex m_mutex;
    std::vector<PlaylistEntry> m_albums;  // under m_mutex, and so the next one
    int64_t m_revision = 0;
};

}  // namespace nuvio::controller
