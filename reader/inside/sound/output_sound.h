// One open sound as the output takes it: as it is where the output takes that, else at another
// rate, of two channels, of fewer bits, louder or quieter. What it says and where it goes is of the
// sound that comes out.
//
// One thread; every call may block on the decoder's input.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "reader/inside/sound/decoder.h"
#include "reader/inside/sound/leveler.h"
#include "reader/inside/sound/mixing.h"
#include "reader/inside/sound/resampler.h"
#include "reader/protocol.h"

namespace nuvio::reader {

// Of the rates that an output has, the one for a sound: of its family (of 44.1 or of 48 kHz) the
// lowest that is not below it, else the highest; without its family, of all the same. 0: there are
// none.
uint32_t output_rate(uint32_t rate_hz, const OutputFormats& output);

class OutputSound {
  public:
    // Null, with *error set, where the sound can't be converted. `gain_db`: 0 leaves the loudness;
    // so does an output without rates.
    static std::unique_ptr<OutputSound> open(std::unique_ptr<Decoder> decoder,
                                             const OutputFormats& output, float gain_db,
                                             std::string* error);

    const SoundInfo& info() const { return m_info; }
    // As the decoder gives it.
    const SoundInfo& info_inside() const { return m_decoder->info(); }

    // By which it was made louder.
    float gain_db() const { return m_gain_db; }

    // As Decoder has them.
    size_t read(void* block, size_t capacity_bytes);
    std::optional<uint64_t> seek(uint64_t frame);
    std::optional<Decoder::Texts> take_new_texts() { return m_decoder->take_new_texts(); }
    std::string last_error() const;

  private:
    explicit OutputSound(std::unique_ptr<Decoder> decoder);
    bool is_converted() const { return m_mixer != nullptr; }
    void convert(uint32_t rate_hz, bool to_deep, float gain_db);
    // Frames that were put there, at most kFramesAtATime.
    size_t read_mixed(float* to, size_t frames);
    size_t read_resampled(float* to, size_t frames);

    const std::unique_ptr<Decoder> m_decoder;
    SoundInfo m_info;
    std::unique_ptr<Mixer> m_mixer;          // null: nothing is converted
    std::unique_ptr<Resampler> m_resampler;  // null: the rate is its own
    std::optional<Leveler> m_leveler;        // none: the loudness is its own
    float m_gain_db = 0;
    bool m_with_noise = false;
    Rounder m_rounder;
    bool m_has_ended = false;
    std::vector<std::byte> m_decoded;
    std::vector<float> m_mixed, m_made;
};

}  // namespace nuvio::reader
