#include "tools/simcard/recorder.h"

#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <cstring>

namespace simcard {

namespace {

constexpr std::size_t kFileBufferBytes = 1 << 18;

std::string numbered_path(const std::string& directory, unsigned number) {
    char name[16];
    std::snprintf(name, sizeof(name), "%03u", number);
    return directory + "/recordings/" + name;
}

}  // namespace

Recorder::Recorder(const std::string& directory, unsigned number, const Format& format,
                   std::size_t ring_frames)
    : m_path(numbered_path(directory, number)),
      m_format(format),
      m_ring(ring_frames * format.frame_bytes),
      m_file(m_path + ".raw", kFileBufferBytes),
      m_timeline(m_path + ".times", format.rate) {
    write_description({}, false);
}

void Recorder::queue(const void* frames, std::size_t count) {
    const std::size_t bytes = count * m_format.frame_bytes;
    const auto* source = static_cast<const unsigned char*>(frames);
    const std::size_t begin = (m_read + m_queued) % m_ring.size();
    const std::size_t first = std::min(bytes, m_ring.size() - begin);
    std::memcpy(&m_ring[begin], source, first);
    std::memcpy(m_ring.data(), source + first, bytes - first);
    m_queued += bytes;
}

void Recorder::play(std::size_t count, const StreamClock& clock, std::uint64_t position) {
    std::size_t bytes = count * m_format.frame_bytes;
    while (bytes > 0) {
        const std::size_t chunk = std::min(bytes, m_ring.size() - m_read);
        m_file.write(&m_ring[m_read], chunk);
        m_read = (m_read + chunk) % m_ring.size();
        m_queued -= chunk;
        bytes -= chunk;
    }
    m_timeline.advance(clock, position, count);
}

void Recorder::discard() {
    m_read = 0;
    m_queued = 0;
}

void Recorder::flush(const Totals& totals) {
    m_file.flush();
    m_timeline.flush();
    write_description(totals, false);
}

void Recorder::close(const Totals& totals) {
    m_file.close();
    m_timeline.close();
    write_description(totals, true);
}

// Readers see the old text or the new one, never half of it.
void Recorder::write_description(const Totals& totals, bool closed) {
    const std::string partial = m_path + ".part";
    const FilePtr text = create_file(partial);
    if (text == nullptr) {
        return;
    }
    std::fprintf(text.get(),
                 "format=%s\nrate=%u\nchannels=%u\nframes=%" PRIu64 "\nframes_dropped=%" PRIu64
                 "\ndrops=%" PRIu64 "\nunderruns=%" PRIu64 "\nclosed=%d\nincomplete=%d\n",
                 snd_pcm_format_name(m_format.format), m_format.rate, m_format.channels,
                 totals.played, totals.dropped, totals.drops, totals.underruns, closed ? 1 : 0,
                 m_file.has_failed() || m_timeline.has_failed() ? 1 : 0);
    if (std::fflush(text.get()) == 0) {
        std::rename(partial.c_str(), (m_path + ".txt").c_str());
    }
}

}  // namespace simcard
