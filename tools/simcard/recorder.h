#ifndef SIMCARD_RECORDER_H
#define SIMCARD_RECORDER_H

#include <alsa/asoundlib.h>

#include <cstdint>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

namespace simcard {

/*
 * The frames between application and hardware pointer, and the file of those that the hardware
 * pointer has passed. One an opened and configured PCM. Not thread safe. All memory and both files
 * are made at construction; after that play() writes through a fixed buffer.
 */
class Recorder {
  public:
    struct Format {
        snd_pcm_format_t format;
        unsigned rate;
        unsigned channels;
        std::size_t frame_bytes;
    };
    struct Totals {
        std::uint64_t played = 0, dropped = 0, drops = 0,
                      underruns = 0; /* the first two in frames */
    };

    /* Begins recordings/<number>.raw and .txt of the card in `directory`. A file that can't be
     * written is said on ALSA's error channel once, and in the .txt. */
    Recorder(const std::string& directory, unsigned number, const Format& format,
             std::size_t ring_frames);
    ~Recorder();
    Recorder(const Recorder&) = delete;
    Recorder& operator=(const Recorder&) = delete;

    /* Queues frames; there must be room. */
    void queue(const void* frames, std::size_t count);
    /* Records the oldest `count` queued frames. */
    void play(std::size_t count);
    /* Forgets all that is queued. */
    void discard();
    /* Brings both files up to date. */
    void flush(const Totals& totals);
    /* The same for the last time; the recording counts as closed. */
    void close(const Totals& totals);

  private:
    struct CloseFile {
        void operator()(std::FILE* file) const { std::fclose(file); }
    };

    void write_description(const Totals& totals, bool closed);
    void fail();

    std::string path_; /* without extension */
    Format format_;
    std::vector<unsigned char> ring_;
    std::size_t read_ = 0, queued_ = 0; /* bytes */
    std::vector<char> file_buffer_;     /* outlives file_ */
    std::unique_ptr<std::FILE, CloseFile> file_;
    bool failed_ = false;
};

}  // namespace simcard

#endif
