// Short files of the kinds that a reader takes apart, made by the libraries that write them.
#pragma once

#include <sndfile.h>

#include <algorithm>
#include <cstddef>
#include <string>
#include <vector>

#include "fuzz/expect.h"

// A sixth of a second of sound in a format of libsndfile.
inline std::string sound_of(int format) {
    struct Memory {
        std::string bytes;
        size_t at = 0;
    } memory;
    SF_VIRTUAL_IO io{};
    io.get_filelen = [](void* data) {
        return static_cast<sf_count_t>(static_cast<Memory*>(data)->bytes.size());
    };
    io.tell = [](void* data) { return static_cast<sf_count_t>(static_cast<Memory*>(data)->at); };
    io.seek = [](sf_count_t offset, int whence, void* data) {
        auto* const to = static_cast<Memory*>(data);
        const size_t from = whence == SEEK_CUR ? to->at : whence == SEEK_END ? to->bytes.size() : 0;
        to->at = from + static_cast<size_t>(offset);
        return static_cast<sf_count_t>(to->at);
    };
    io.read = [](void* into, sf_count_t size, void* data) {
        auto* const from = static_cast<Memory*>(data);
        const size_t got =
            from->bytes.copy(static_cast<char*>(into), static_cast<size_t>(size), from->at);
        from->at += got;
        return static_cast<sf_count_t>(got);
    };
    io.write = [](const void* bytes, sf_count_t size, void* data) {
        auto* const to = static_cast<Memory*>(data);
        const auto count = static_cast<size_t>(size);
        to->bytes.resize(std::max(to->bytes.size(), to->at + count));
        to->bytes.replace(to->at, count, static_cast<const char*>(bytes), count);
        to->at += count;
        return size;
    };
    SF_INFO info{};
    info.samplerate = 48000;
    info.channels = 2;
    info.format = format;
    SNDFILE* const sound = sf_open_virtual(&io, SFM_WRITE, &info, &memory);
    FUZZ_EXPECT(sound != nullptr);
    sf_set_string(sound, SF_STR_TITLE, "a");
    std::vector<short> samples(size_t{2} * 8000);
    for (size_t i = 0; i < samples.size(); ++i) {
        samples[i] = static_cast<short>(i * i);
    }
    sf_writef_short(sound, samples.data(), 8000);
    sf_close(sound);
    return memory.bytes;
}

inline const std::vector<std::string>& small_sounds() {
    static const auto* const all =
        new std::vector<std::string>{sound_of(SF_FORMAT_WAV | SF_FORMAT_PCM_16),
                                     sound_of(SF_FORMAT_FLAC | SF_FORMAT_PCM_16),
                                     sound_of(SF_FORMAT_OGG | SF_FORMAT_VORBIS),
                                     sound_of(SF_FORMAT_OGG | SF_FORMAT_OPUS),
                                     sound_of(SF_FORMAT_MPEG | SF_FORMAT_MPEG_LAYER_III),
                                     sound_of(SF_FORMAT_AIFF | SF_FORMAT_PCM_24),
                                     sound_of(SF_FORMAT_CAF | SF_FORMAT_ALAC_16),
                                     sound_of(SF_FORMAT_WAV | SF_FORMAT_PCM_24),
                                     sound_of(SF_FORMAT_WAV | SF_FORMAT_FLOAT)};
    return *all;
}
