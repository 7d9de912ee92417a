// One open audio file or radio, decoded to the SDK's two sample formats.
//
// Files of 16 bits or fewer and lossy ones come out as 16 bits; deeper ones as 24 bits
// sign-extended in 4 bytes, of a 32-bit integer sample the upper 24. Integer samples are exact,
// floating-point ones are scaled by 2^23 (lossy: 2^15), rounded and clipped. Rate and channel count
// are the file's.
//
// Any one thread at a time. Every call may block on the file, or on a server until the
// interruption.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "local/network/http_failure.h"
#include "local/network/interruption.h"
#include "local/track/content.h"
#include "local/track/track_input.h"
#include "sdk/nuvio_connect.h"

namespace local_core {

struct TrackInfo {
    nuv_audio_format format;
    size_t frame_bytes;
    uint64_t frame_count;  // of an endless one more than anybody hears
    bool is_endless;
    bool seekable;
    // Tags as the file has them, their first kilobyte; empty where it has none.
    std::string title;
    std::string artist;
    std::string album;
    // Of a radio: its name and what it plays, as sent; possibly empty.
    std::string station;
    std::string live_title;

    // 0 of an endless one.
    uint64_t duration_ms() const { return is_endless ? 0 : position_ms(frame_count); }
    uint64_t position_ms(uint64_t frame) const { return frame * 1000 / format.sample_rate; }
    // Truncated, and never beyond the end.
    uint64_t frame_at(uint64_t position_ms) const;
};

class TrackDecoder {
  public:
    // Frames larger than this are refused, so that a block of this size always holds some.
    static constexpr size_t kMaxFrameBytes = 4096;

    // Null, with *failure set, when the track can't be read, has nothing to play or is above
    // `highest`. The interruption must outlive the decoder.
    static std::unique_ptr<TrackDecoder> open(const Track& track, nuv_audio_quality highest,
                                              Interruption& interruption, OpenFailure* failure);
    ~TrackDecoder();

    const TrackInfo& info() const { return m_info; }

    // Decodes as many whole frames as fit; returns the bytes written, 0 at the end of the file or
    // at a place that can't be decoded. `block` must be aligned for a 4-byte sample.
    size_t read(void* block, size_t capacity_bytes);

    // Goes to a frame; returns the one reached, none when the file can't be positioned.
    std::optional<uint64_t> seek(uint64_t frame);

    // Of a radio, what it plays at the place read last; possibly empty.
    std::string live_title() const;
    // By whom, where the radio says so apart from the title.
    const std::optional<std::string>& live_artist() const { return m_live_artist; }

    // Why the last read or seek failed: its server, or what libsndfile says; empty when nothing
    // did.
    HttpFailure failure() const;
    std::string last_error() const;

  private:
    // How samples are read and turned into the delivered format.
    enum class Conversion { none_16, unpack_24, upper_24, float_to_24, float_to_16 };

    TrackDecoder(std::unique_ptr<TrackInput> input, TrackInfo info, Conversion conversion);
    static bool is_deep(Conversion conversion);
    static Conversion conversion_of(sf_private_tag* file, int sndfile_format);
    size_t read_frames(void* block, size_t capacity_bytes);
    bool rejoin();

    const std::unique_ptr<TrackInput> m_input;
    TrackInfo m_info;
    Conversion m_conversion;
    std::string m_live_title;  // of an Ogg radio's second and further streams
    std::optional<std::string> m_live_artist;
};

}  // namespace local_core
