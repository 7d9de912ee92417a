// Covers, as files that whoever shows the track can read.
#pragma once

#include <cstddef>
#include <memory>
#include <optional>
#include <string>
#include <utility>

#include "common/unique_fd.h"

namespace local_core {

constexpr size_t kMaxCoverBytes = size_t{2} << 20;

struct CoverImage {
    std::string bytes;
};

// The picture inside an audio file (FLAC, MP3, Ogg, M4A, WAV, AIFF): its front cover, else its
// first one. None where it has none, or none of a kind that is shown. Reads the file; any thread.
std::optional<CoverImage> embedded_cover(nuvio::UniqueFd file);

// A cover as a file in the state directory, as long as somebody keeps it.
class KeptCover {
  public:
    // The picture as a file; one that is kept already is shared. Null where it is no JPEG, PNG or
    // WebP, too large, or can't be written. Any thread; blocks on the disk.
    static std::shared_ptr<const KeptCover> keep(const CoverImage& image);
    ~KeptCover();
    KeptCover(const KeptCover&) = delete;
    KeptCover& operator=(const KeptCover&) = delete;

    std::string url() const;

  private:
    explicit KeptCover(std::string path) : m_path(std::move(path)) {}

    const std::string m_path;
};

}  // namespace local_core
