#include "local_core/audio_files.h"

#include <sndfile.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <random>
#include <stdexcept>

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
    switch (sndfile_format & SF_FORMAT_SUBMASK) {
        case SF_FORMAT_PCM_U8:
        case SF_FORMAT_PCM_S8:
            return 8;
        case SF_FORMAT_PCM_24:
            return 24;
        case SF_FORMAT_PCM_32:
            return 32;
        default:
            return 16;
    }
}

template <typename Sample>
void append(std::vector<std::byte>* out, Sample sample) {
    const size_t at = out->size();
    out->resize(at + sizeof sample);
    std::memcpy(out->data() + at, &sample, sizeof sample);
}

}  // namespace

TemporaryFolder::TemporaryFolder() {
    std::string pattern = (std::filesystem::temp_directory_path() / "local_core.XXXXXX").string();
    if (mkdtemp(pattern.data()) == nullptr) {
        throw std::runtime_error("no temporary folder");
    }
    m_path = pattern;
}

TemporaryFolder::~TemporaryFolder() {
    std::error_code ignored;
    std::filesystem::remove_all(m_path, ignored);
}

std::string TemporaryFolder::write(const std::string& name, const std::string& text) const {
    std::string path = *this / name;
    std::filesystem::create_directories(std::filesystem::path(path).parent_path());
    std::ofstream(path, std::ios::binary) << text;
    return path;
}

std::vector<std::byte> AudioFile::pcm_from_ms(uint64_t position_ms) const {
    const uint64_t frame = position_ms * format.sample_rate / 1000;
    const bool deep = format.sample_format == NUV_AUDIO_SAMPLE_FORMAT_24_BIT;
    const size_t frame_bytes = (deep ? size_t{4} : size_t{2}) * format.channel_count;
    return {pcm.begin() + static_cast<std::ptrdiff_t>(frame * frame_bytes), pcm.end()};
}

AudioFile write_audio(const TemporaryFolder& folder, const std::string& name,
                      const AudioSpec& spec) {
    AudioFile file;
    file.path = folder.write(name, "");
    const int bits = bits_of(spec.sndfile_format);
    const bool deep = bits > 16;
    file.format = {spec.rate, spec.channels,
                   deep ? NUV_AUDIO_SAMPLE_FORMAT_24_BIT : NUV_AUDIO_SAMPLE_FORMAT_16_BIT};
    const auto samples = make_noise(name, size_t{spec.frames} * spec.channels, bits);
    for (const int32_t sample : samples) {
        if (deep) {
            append(&file.pcm, sample >> 8);
        } else {
            append(&file.pcm, static_cast<int16_t>(sample >> 16));
        }
    }
    SF_INFO info{};
    info.samplerate = static_cast<int>(spec.rate);
    info.channels = static_cast<int>(spec.channels);
    info.format = spec.sndfile_format;
    SNDFILE* out = sf_open(file.path.c_str(), SFM_WRITE, &info);
    if (out == nullptr) {
        throw std::runtime_error(sf_strerror(nullptr));
    }
    if (*spec.title != '\0') {
        sf_set_string(out, SF_STR_TITLE, spec.title);
        sf_set_string(out, SF_STR_ARTIST, "An Artist");
        sf_set_string(out, SF_STR_ALBUM, "An Album");
    }
    sf_writef_int(out, samples.data(), spec.frames);
    sf_close(out);
    return file;
}

AudioFile write_wav(const TemporaryFolder& folder, const std::string& name, uint32_t frames) {
    return write_audio(folder, name,
                       {.sndfile_format = SF_FORMAT_WAV | SF_FORMAT_PCM_16, .frames = frames});
}
