#pragma once

#include <alsa/asoundlib.h>

#include <cstdint>
#include <string>
#include <vector>

#include "tools/simcard/recording_file.h"
#include "tools/simcard/stream_clock.h"
#include "tools/simcard/timeline.h"

namespace simcard {

// The frames between application and hardware pointer, and the files of those that the hardware
// pointer has passed and of when. One an opened and configured PCM. Not thread safe. All memory and
// all files are made at construction; after that play() writes through fixed buffers.
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
                      underruns = 0;  // the first two in frames
    };

    // Begins recordings/<number>.raw, .times and .txt of the card in `directory`. A file that can't
    // be written is said on ALSA's error channel once, and in the .txt.
    Recorder(const std::string& directory, unsigned number, const Format& format,
             std::size_t ring_frames);
    Recorder(const Recorder&) = delete;
    Recorder& operator=(const Recorder&) = delete;

    // Queues frames; there must be room.
    void queue(const void* frames, std::size_t count);
    // Records the oldest `count` queued frames, through which the clock has gone from `position`.
    void play(std::size_t count, const StreamClock& clock, std::uint64_t position);
    // Forgets all that is queued.
    void discard();
    // Brings the files up to date.
    void flush(const Totals& totals);
    // The same for the last time; the recording counts as closed.
    void close(const Totals& totals);

  private:
    void write_description(const Totals& totals, bool closed);

    std::string m_path;  // without extension
    Format m_format;
    std::vector<unsigned char> m_ring;
    std::size_t m_read = 0, m_queued = 0;  // bytes
    RecordingFile m_file;
    Timeline m_timeline;
};

}  // namespace simcard
