// Whether the output took the samples of a track's file, all of them and no others: what it took,
// against the sum that the file has of them (FLAC's MD5).
//
// Built on any thread. After that one thread at a time, the loop's: nothing waits.
#pragma once

#include <md5.h>
#include <sys/types.h>

#include <array>
#include <cstddef>
#include <cstdint>

#include "local/track/track_decoder.h"

namespace local_core {

enum class Verdict {
    verified,
    differs,     // the samples taken are not those of the sum
    no_sum,      // the file has none
    too_much,    // above CD quality: summing it up is left out
    converted,   // so that they can't be the file's
    sought,      // the listener did, or paused
    unfinished,  // not played to its end
    cut_off,     // the file ended before
};

// "verified", or why not.
const char* text_of(Verdict verdict);

class Verification {
  public:
    // `with_all`: a track above CD quality too. A second of it takes libmd 1.5 ms and more.
    Verification(const TrackInfo& info, bool with_all);

    // What the output has taken, whole frames, in turn.
    void add(const std::byte* samples, size_t bytes);
    // What follows is the file's from `frame` on: from its first one on all is open again.
    void seek(uint64_t frame);
    // Once, at the end. `is_played_out`: all that came of the track was heard.
    Verdict conclude(bool is_played_out);

  private:
    template <typename Sample, size_t kEqual>
    void add_packed(const std::byte* samples, size_t count);
    void begin();
    bool is_open() const { return m_hindrance == Verdict::verified && !m_was_sought; }
    void hash(const void* bytes, size_t size);

    const nuvio::reader::SampleSum m_sum;
    const size_t m_frame_bytes;  // as they are taken
    const size_t m_channels;
    const unsigned m_width;       // bits of a sample that is taken
    const bool m_is_doubled;      // the file's one channel was given to two
    const size_t m_packed_bytes;  // of a sample as it is summed up
    Verdict m_hindrance;          // what is known from the beginning; verified: nothing
    bool m_was_sought = false;
    bool m_is_wrong = false;
    uint64_t m_frames = 0;  // taken
    MD5_CTX m_hash;
};

}  // namespace local_core
