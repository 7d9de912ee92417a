#include "tools/simcard/timeline.h"

#include <cinttypes>
#include <cstdio>

namespace simcard {

namespace {

constexpr std::size_t kTimesBufferBytes = 4096;
constexpr unsigned kStepsPerSecond = 200;

}  // namespace

Timeline::Timeline(const std::string& path, unsigned rate)
    : m_file(path, kTimesBufferBytes), m_step(rate / kStepsPerSecond) {}

void Timeline::advance(const StreamClock& clock, std::uint64_t from, std::uint64_t count) {
    if (clock.going_since() != m_going_since) {
        m_going_since = clock.going_since();
        add_corner({m_frames, m_going_since});
    }
    const std::uint64_t knee = clock.knee();
    if (from <= knee && knee <= from + count) {
        add_corner({m_frames + (knee - from), clock.reached_at(knee)});
    }
    m_frames += count;
    add({m_frames, clock.reached_at(from + count)});
}

void Timeline::flush() {
    write_latest();
    m_file.flush();
}

void Timeline::close() {
    write_latest();
    m_file.close();
}

void Timeline::add(const Point& point) {
    m_latest = point;
    if (point.frame - m_written.frame >= m_step) {
        write_latest();
    }
}

void Timeline::add_corner(const Point& point) {
    write_latest();
    m_latest = point;
    write_latest();
}

void Timeline::write_latest() {
    if (m_latest.frame == m_written.frame && m_latest.ns == m_written.ns) {
        return;
    }
    m_written = m_latest;
    char line[48];
    const int size =
        std::snprintf(line, sizeof(line), "%" PRIu64 " %" PRId64 "\n", m_latest.frame, m_latest.ns);
    m_file.write(line, static_cast<std::size_t>(size));
}

}  // namespace simcard
