// Makes two-channel sound louder or quieter by a factor, and what would be above full scale as much
// quieter as it takes: sound is held back for a block, so that the way down is over before the peak
// comes. As much comes out as went in.
//
// One thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <vector>

namespace nuvio::reader {

class Leveler {
  public:
    static constexpr size_t kChannels = 2;
    // Puts up to so many frames there, full scale is 1; 0: there are no more.
    using Source = std::function<size_t(float* to, size_t frames)>;

    Leveler(float gain_db, uint32_t rate_hz, Source source);

    // What the source gives from now on is another place's.
    void begin();
    // As a source; never above full scale less two steps of 16 bits, which a noise may be.
    size_t read(float* to, size_t frames);

  private:
    // Sound with the factor in it, and what it takes on top not to be too loud.
    struct Block {
        std::vector<float> samples;
        size_t frames = 0;
        float most = 1;
    };
    void fill(Block& block);
    void go_on();

    const Source m_source;
    const float m_factor;
    const float m_rise;  // that the way up takes from one block to the next, at most
    Block m_present, m_next;
    size_t m_read = 0;  // frames of the present block
    float m_level = 1;  // at its end
    bool m_has_begun = false;
};

}  // namespace nuvio::reader
