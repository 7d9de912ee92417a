#include "local_core/audio_files.h"

#include <sndfile.h>

#include <functional>
#include <random>

namespace {

// Left-justified samples, as the file's own depth holds them.
std::vector<int32_t> make_noise(const std::string& name, size_t count, int bits) {
    std::minstd_rand random(static_cast<unsigned>(std::hash<std::string>{}(name)));
    std::vector<int32_t> samples(count);
    for (int32_t& sample : samples) {
        const auto raw = static_cast<uint32_t>(random()) << 1;
        sample = static_cast<int32_t>(raw & (~uint32_t{0} << (32 - bits)));
    }
    return samples;
}

int bits_of(int sndfile_format) {
    const int depth = sndfile_format & SF_FORMAT_SUBMASK;
    return depth == SF_FORMAT_PCM_24   ? 24
           : depth == SF_FORMAT_PCM_32 ? 32
           : depth == SF_FORMAT_PCM_U8 ? 8
                                       : 16;
}

}  // namespace

AudioFile write_audio(const TempDir& folder, const std::string& name, const AudioSpec& wanted) {
    AudioFile file{.path = folder.write(name, ""), .rate = wanted.rate};
    const int bits = bits_of(wanted.sndfile_format);
    file.frame_bytes = (bits > 16 ? size_t{4} : size_t{2}) * wanted.channels;
    const auto samples = make_noise(name, size_t{wanted.frames} * wanted.channels, bits);
    for (const int32_t sample : samples) {
        // Little-endian: 24 bits in four bytes, or 16 in two.
        const int32_t delivered = bits > 16 ? sample >> 8 : sample >> 16;
        const auto* const bytes = reinterpret_cast<const std::byte*>(&delivered);
        file.pcm.insert(file.pcm.end(), bytes, bytes + (bits > 16 ? 4 : 2));
    }
    SF_INFO info{};
    info.samplerate = static_cast<int>(wanted.rate);
    info.channels = static_cast<int>(wanted.channels);
    info.format = wanted.sndfile_format;
    SNDFILE* out = sf_open(file.path.c_str(), SFM_WRITE, &info);
    if (*wanted.title != '\0') {
        sf_set_string(out, SF_STR_TITLE, wanted.title);
        sf_set_string(out, SF_STR_ARTIST, "An Artist");
        sf_set_string(out, SF_STR_ALBUM, "An Album");
    }
    sf_writef_int(out, samples.data(), wanted.frames);
    sf_close(out);
    return file;
}

AudioFile write_wav(const TempDir& folder, const std::string& name, uint32_t frames) {
    return write_audio(folder, name,
                       {.sndfile_format = SF_FORMAT_WAV | SF_FORMAT_PCM_16, .frames = frames});
}
