// Small audio files in a folder of their own, and the PCM that the core must deliver for them.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

// A fresh folder, removed with everything in it.
class TemporaryFolder {
  public:
    TemporaryFolder();
    ~TemporaryFolder();
    TemporaryFolder& operator=(TemporaryFolder&&) = delete;

    const std::string& path() const { return m_path; }
    std::string operator/(const std::string& name) const { return m_path + "/" + name; }
    // Writes a text file, folders above it included; returns its path.
    std::string write(const std::string& name, const std::string& text) const;

  private:
    std::string m_path;
};

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
AudioFile write_audio(const TemporaryFolder& folder, const std::string& name,
                      const AudioSpec& wanted);
// 16-bit stereo WAV of 44.1 kHz.
AudioFile write_wav(const TemporaryFolder& folder, const std::string& name, uint32_t frames);
