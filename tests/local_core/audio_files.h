// Small audio files, and the PCM that the core must deliver for them.
#pragma once

#include <sndfile.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <random>
#include <string>
#include <vector>

#include "temp_dir.h"

struct AudioFile {
    std::string path;
    std::vector<std::byte> pcm = {};  // as delivered: 16 bits, stereo

    std::vector<std::byte> pcm_from_frame(size_t frame) const {
        return {pcm.begin() + static_cast<std::ptrdiff_t>(4 * frame), pcm.end()};
    }
};

// Writes noise, a different one for each name.
inline AudioFile write_audio(const TempDir& folder, const std::string& name, uint32_t frames = 4410,
                             int format = SF_FORMAT_WAV | SF_FORMAT_PCM_16, int rate = 44100) {
    std::minstd_rand random(static_cast<unsigned>(std::hash<std::string>{}(name)));
    std::vector<int16_t> samples(size_t{2} * frames);
    for (int16_t& sample : samples) {
        sample = static_cast<int16_t>(random() >> 8);
    }
    AudioFile file{.path = folder.write(name, "")};
    const auto* const bytes = reinterpret_cast<const std::byte*>(samples.data());
    file.pcm.assign(bytes, bytes + samples.size() * sizeof(int16_t));
    SF_INFO info{};
    info.samplerate = rate;
    info.channels = 2;
    info.format = format;
    SNDFILE* const out = sf_open(file.path.c_str(), SFM_WRITE, &info);
    sf_writef_short(out, samples.data(), frames);
    sf_close(out);
    return file;
}
