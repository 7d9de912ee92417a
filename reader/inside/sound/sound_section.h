// A part of an open sound, as if it were a sound of its own: its length, its places and its end are
// the part's. Parts that follow on each other are the whole, to the frame, also where the sound is
// converted.
//
// One thread; every call may block on the sound's input.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "common/music/section.h"
#include "reader/inside/sound/output_sound.h"

namespace nuvio::reader {

class SoundSection {
  public:
    // Null, with *error set, where the sound has no such part or can't be positioned. Stands at the
    // part's beginning.
    static std::unique_ptr<SoundSection> open(std::unique_ptr<OutputSound> sound,
                                              const Section& section, std::string* error);

    const SoundInfo& info() const { return m_info; }

    // As OutputSound has them.
    const SoundInfo& info_inside() const { return m_sound->info_inside(); }
    float gain_db() const { return m_sound->gain_db(); }
    size_t read(void* block, size_t capacity_bytes);
    std::optional<uint64_t> seek(uint64_t frame);
    std::optional<Decoder::Texts> take_new_texts() { return m_sound->take_new_texts(); }
    std::string last_error() const { return m_sound->last_error(); }

  private:
    explicit SoundSection(std::unique_ptr<OutputSound> sound);
    bool cut_out(const Section& section, std::string* error);

    const std::unique_ptr<OutputSound> m_sound;
    SoundInfo m_info;
    // Frames of the whole sound.
    uint64_t m_begin = 0, m_end = UINT64_MAX;
    uint64_t m_place = 0;  // of what is read next
};

}  // namespace nuvio::reader
