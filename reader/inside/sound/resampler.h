// Interleaved sound at another rate, by libsoxr.
//
// Beyond its ends sound is taken to go on as it came: tracks that were one before they were cut
// join without a click then, where a filter that hears silence there would make one.
//
// One thread.
#pragma once

#include <soxr.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "common/released_by.h"

namespace nuvio::reader {

class Resampler {
  public:
    static constexpr uint32_t kLowestHz = 1000, kHighestHz = 3'072'000;
    static constexpr uint64_t kMaxFrames = uint64_t{1} << 48U;

    // Rates within the limits. Stands at the beginning.
    Resampler(uint32_t from_hz, uint32_t to_hz, uint32_t channels);

    // How many come out of so many, at most kMaxFrames: rounded. The same for places.
    uint64_t frames_out_of(uint64_t frames_in) const;
    // Where in the input to begin, for `frame_out` to be what a run from the beginning makes of it.
    uint64_t begin_for(uint64_t frame_out) const;
    // Begins anew at a frame of the input, and leaves out what lies before `frame_out`; returns the
    // frame that comes first, a later one where the input's is behind it.
    uint64_t begin(uint64_t frame_in, uint64_t frame_out);

    // What follows in the input; after finish() nothing does.
    void give(const float* samples, size_t frames);
    void finish();
    // Frames that come out, at most `frames`. 0: more has to be given; after finish(), all is out,
    // or last_error() says what the library lacks.
    size_t read(float* samples, size_t frames);

    const std::string& last_error() const { return m_error; }

  private:
    size_t frames_in(const std::vector<float>& samples) const {
        return samples.size() / m_channels;
    }
    std::vector<float> mirrored(const std::vector<float>& samples, bool at_its_end) const;
    size_t process(float* samples, size_t frames);

    const uint32_t m_from_hz, m_to_hz;
    const size_t m_channels;
    // The fewest frames that take equally long, a multiple of which begins at one time in both.
    const uint64_t m_from_step, m_to_step;
    // How far a frame that comes out hears, in frames of the input.
    const size_t m_edge;

    std::unique_ptr<soxr, ReleasedBy<soxr_delete>> m_soxr;
    std::string m_error;
    std::vector<float> m_pending;  // the library has not taken it yet
    size_t m_taken = 0;            // of that it has, in frames
    std::vector<float> m_latest;   // the last frames that were given, m_edge + 1 at most
    uint64_t m_given = 0;          // up to which frame of the input
    uint64_t m_next = 0;           // the frame that comes out next
    uint64_t m_to_skip = 0;        // frames that are left out before it
    bool m_is_led_in = false;      // what lies before the beginning is pending, or unheard
    bool m_has_ended = false;
};

}  // namespace nuvio::reader
