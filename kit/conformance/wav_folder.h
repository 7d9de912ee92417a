// A folder of three short WAV files, for cores that play the machine's own; removed with the
// object. The first two have one format, the third has another.
#pragma once

#include <array>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

namespace nuvio::kit {

class WavFolder {
  public:
    WavFolder() {
        std::string name = std::filesystem::temp_directory_path() / "nuvio-conformance-XXXXXX";
        m_path = mkdtemp(name.data());
        write("1.wav", 44100);
        write("2.wav", 44100);
        write("3.wav", 48000);
    }
    ~WavFolder() {
        std::error_code ignored;
        std::filesystem::remove_all(m_path, ignored);
    }
    WavFolder(const WavFolder&) = delete;
    WavFolder& operator=(const WavFolder&) = delete;

    const std::string& path() const { return m_path; }

  private:
    static constexpr uint32_t kSeconds = 5;
    static constexpr uint32_t kFrameBytes = 4;  // stereo, 16 bit

    // Samples that tell one place of a track from any other near it.
    void write(const std::string& name, uint32_t rate) const {
        const uint32_t frames = kSeconds * rate;
        const uint32_t bytes = frames * kFrameBytes;
        const std::array<uint32_t, 11> header = {word("RIFF"),
                                                 36 + bytes,
                                                 word("WAVE"),
                                                 word("fmt "),
                                                 16,
                                                 1U | 2U << 16U,
                                                 rate,
                                                 rate * kFrameBytes,
                                                 kFrameBytes | 16U << 16U,
                                                 word("data"),
                                                 bytes};
        std::vector<uint32_t> samples(frames);
        for (uint32_t i = 0; i < frames; ++i) {
            samples[i] = i * 2654435761U >> 4U & 0x0FFF0FFFU;
        }
        std::ofstream file(m_path + "/" + name, std::ios::binary);
        file.write(reinterpret_cast<const char*>(header.data()), sizeof header);
        file.write(reinterpret_cast<const char*>(samples.data()), bytes);
    }

    static uint32_t word(const char* text) {
        uint32_t value = 0;
        std::memcpy(&value, text, sizeof value);
        return value;
    }

    std::string m_path;
};

}  // namespace nuvio::kit
