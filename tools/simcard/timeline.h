#pragma once

#include <cstdint>
#include <string>

#include "tools/simcard/recording_file.h"
#include "tools/simcard/stream_clock.h"

namespace simcard {

// The file of when the frames of a recording were heard: the corners of the hardware pointer's way
// and points between them, as lines "FRAME NANOSECONDS" that never go back. FRAME counts the
// recording's frames, NANOSECONDS is when the clock (CLOCK_MONOTONIC) had reached exactly so many.
// Between two neighbouring lines the pointer moved steadily, or by hand if they have one time; two
// of one FRAME say from when to when it stood there. The one frame in which the speed changed lies
// between two lines of its own. Not thread safe; all memory is made at construction.
class Timeline {
  public:
    Timeline(const std::string& path, unsigned rate);

    // The running clock has gone from `from` to `from + count`, all since its last change of pace;
    // `count` > 0.
    void advance(const StreamClock& clock, std::uint64_t from, std::uint64_t count);
    // Brings the file up to date.
    void flush();
    void close();
    bool has_failed() const { return m_file.has_failed(); }

  private:
    struct Point {
        std::uint64_t frame;
        std::int64_t ns;
    };

    void add(const Point& point);
    void add_corner(const Point& point);
    void write_latest();

    RecordingFile m_file;
    std::uint64_t m_step;  // frames after which a point gets a line
    std::uint64_t m_frames = 0;
    std::int64_t m_going_since = 0;  // of the clock, as of its last advance
    Point m_latest{}, m_written{};
};

}  // namespace simcard
