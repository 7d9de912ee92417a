// Samples on their way to the output: mixed to two channels, and rounded to its width.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <vector>

namespace nuvio::reader {

// To two channels: one goes to both as it is, of more each goes to its side by the factors of ITU-R
// BS.775 (the center and what is beside or behind by 3 dB less, low frequencies to none), all of it
// made so quiet that nothing can be above full scale.
class Mixer {
  public:
    // Channels in the order of a WAV file, at least one; beyond eight each goes to both sides.
    explicit Mixer(size_t channels);
    // What comes out are not the samples that came in.
    bool changes() const { return m_factors.size() > 2; }
    // `from`: of 16 bits, or 24 in 4 bytes; `to`: two channels, full scale is 1.
    template <typename Sample>
    void mix(const Sample* from, size_t frames, float* to) const;

  private:
    std::vector<std::array<float, 2>> m_factors;  // a channel's, to left and right
};

// Rounds to 16 or 24 bits (in 4 bytes), where it is told with noise of one step before it, of
// triangular distribution: what is rounded off is no distortion then.
class Rounder {
  public:
    template <typename Sample>
    void round(const float* from, size_t samples, Sample* to, bool with_noise);

  private:
    uint32_t m_noise = 1;
};

}  // namespace nuvio::reader
