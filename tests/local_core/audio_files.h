// Small audio files, and the PCM that the core must deliver for them.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "temp_dir.h"

struct AudioFile {
    std::string path;
    uint32_t rate;
    size_t frame_bytes = 0;
    std::vector<std::byte> pcm = {};  // as delivered

    std::vector<std::byte> pcm_from_ms(size_t position_ms) const {
        const size_t offset = position_ms * rate / 1000 * frame_bytes;
        return {pcm.begin() + static_cast<std::ptrdiff_t>(offset), pcm.end()};
    }
};

struct AudioSpec {
    int sndfile_format;
    uint32_t rate = 44100;
    uint32_t channels = 2;
    uint32_t frames = 4410;
    const char* title = "";
};

// Writes noise, a different one for each name.
AudioFile write_audio(const TempDir& folder, const std::string& name, const AudioSpec& wanted);
// 16-bit stereo WAV of 44.1 kHz.
AudioFile write_wav(const TempDir& folder, const std::string& name, uint32_t frames);
