// The pictures of albums: as they are, and made smaller once, kept in a folder by what is in them.
//
//   FOLDER/HASH-EDGE.jpg   HASH: of the original's bytes; EDGE: the longest side, in pixels
//
// What was found is remembered by the files it was found in, so that a page full of covers reads
// each original once. All of it can be made anew.
//
// Threads  any. open() waits for the disk, and for the two originals that may be read at a time.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <semaphore>
#include <string>
#include <string_view>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "common/unique_fd.h"
#include "controller/library/library_view.h"
#include "controller/library/music_folders.h"

namespace nuvio::controller {

// The longest side, in pixels.
enum class CoverSize : uint32_t { original = 0, list = 320, screen = 1000 };

struct Cover {
    UniqueFd file;
    size_t size;                 // bytes, from the file's beginning
    std::string_view type;       // Content-Type
    std::string tag;             // another picture has another one
    std::shared_ptr<void> room;  // that it takes in memory until it has been sent
};

class Covers {
  public:
    // Longer is nobody waited for.
    static constexpr std::chrono::seconds kPatience{10};

    // Borrows the folders; `folder` need not exist.
    Covers(const MusicFolders& folders, std::string folder);

    struct Found {
        std::optional<Cover> cover;
        bool is_busy = false;  // too many are being read, or sent from memory
    };
    // Of one album, by its first tracks: the picture beside them, else the one inside the first
    // that has one. The original too where it can't be made smaller.
    Found open(const std::vector<Track>& tracks, CoverSize size);

  private:
    struct Candidate;
    struct Original;

    std::vector<Candidate> candidates(const std::vector<Track>& tracks) const;
    std::optional<Original> read(Candidate candidate, const std::string& identity);
    std::optional<std::string> hash_known_of(const std::string& identity);
    void remember(const std::string& identity, const std::string& hash);
    std::optional<Cover> kept(const std::string& hash, CoverSize size) const;
    std::optional<Cover> smaller(const Original& original, CoverSize size);
    void make_room();

    const MusicFolders& m_folders;
    const std::string m_folder;
    std::counting_semaphore<> m_workers;
    std::counting_semaphore<> m_room;

    std::mutex m_mutex;  // guards the hashes
    // By what a file is; empty: there is no picture in it.
    std::unordered_map<std::string, std::string> m_hashes;

    std::mutex m_scaling;  // guards what follows, and the files in the folder
    std::unordered_set<std::string> m_unscalable;  // hashes
    size_t m_kept_count;
};

}  // namespace nuvio::controller
