// One open audio file, decoded to the SDK's two sample formats.
//
// Files of 16 bits or fewer and lossy ones come out as 16 bits; deeper ones as 24 bits
// sign-extended in 4 bytes, of a 32-bit integer sample the upper 24. Integer samples are exact,
// floating-point ones are scaled by 2^23 (lossy: 2^15), rounded and clipped. Rate and channel count
// are the file's.
//
// Any one thread at a time. Every call may block on the file.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "sdk/nuvio_connect.h"

// libsndfile's handle; its header stays inside the implementation.
struct sf_private_tag;

namespace local_core {

struct TrackInfo {
    nuv_audio_format format;
    size_t frame_bytes;
    uint64_t frame_count;
    bool seekable;
    // Tags as the file has them, their first kilobyte; empty where it has none.
    std::string title;
    std::string artist;
    std::string album;

    uint64_t duration_ms() const { return position_ms(frame_count); }
    uint64_t position_ms(uint64_t frame) const { return frame * 1000 / format.sample_rate; }
    // Truncated, and never beyond the end.
    uint64_t frame_at(uint64_t position_ms) const;
};

class TrackDecoder {
  public:
    // Frames larger than this are refused, so that a block of this size always holds some.
    static constexpr size_t kMaxFrameBytes = 4096;

    // Null, with *error set, when the file can't be read or has nothing to play.
    // Also when it is above `highest`.
    static std::unique_ptr<TrackDecoder> open(const std::string& path, nuv_audio_quality highest,
                                              std::string* error);

    const TrackInfo& info() const { return m_info; }

    // Decodes as many whole frames as fit; returns the bytes written, 0 at the end of the file or
    // at a place that can't be decoded. `block` must be aligned for a 4-byte sample.
    size_t read(void* block, size_t capacity_bytes);

    // Goes to a frame; returns the one reached, none when the file can't be positioned.
    std::optional<uint64_t> seek(uint64_t frame);

    // What libsndfile says of the last failed read or seek; empty when nothing failed.
    std::string last_error() const;

  private:
    struct FileCloser {
        void operator()(sf_private_tag* file) const;
    };
    using File = std::unique_ptr<sf_private_tag, FileCloser>;

    // How samples are read and turned into the delivered format.
    enum class Conversion { none_16, unpack_24, upper_24, float_to_24, float_to_16 };

    TrackDecoder(File file, TrackInfo info, Conversion conversion);
    static Conversion conversion_of(sf_private_tag* file, int sndfile_format);
    size_t read_frames(void* block, size_t capacity_bytes);

    File m_file;
    TrackInfo m_info;
    Conversion m_conversion;
};

}  // namespace local_core
