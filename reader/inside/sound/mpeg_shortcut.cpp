#include "reader/inside/sound/mpeg_shortcut.h"

#include <algorithm>
#include <cstring>
#include <string>
#include <string_view>

#include "reader/inside/id3_tag.h"
#include "reader/inside/sound/mpeg_sync.h"

namespace nuvio::reader {

namespace {

constexpr size_t kHeaderBytes = 4;
constexpr uint32_t kPadded = 0x200;
// Version, layer, bit rate and rate of samples.
constexpr uint32_t kKind = 0xfffefc00;
// Real ones that a decoder looks at before it goes anywhere. In the first of them may stand what
// tells of the whole sound, at another bit rate.
constexpr int kFirstFrames = 4;
// Real ones before the place: sound is stored up to 511 bytes ahead of its frame, and shaped by the
// frame before.
constexpr uint64_t kLastFrames = 32;
// Fewer bytes are sooner read than left out.
constexpr uint64_t kLeastBytes = uint64_t{256} << 10U;
// Two days; keeps the arithmetic far from overflow.
constexpr uint64_t kMaxFrames = uint64_t{1} << 23U;
// As many frames of one kind in a row are where frames are thought to be.
constexpr int kFramesInARow = 5;

// Says the frame that some sounds begin with: so does one of a constant rate, by another name.
bool has_varying_rate(std::string_view first_frame) {
    constexpr size_t kNameEnds = 44;
    first_frame = first_frame.substr(0, kNameEnds);
    return first_frame.find("Xing") != std::string_view::npos ||
           first_frame.find("VBRI") != std::string_view::npos;
}

bool begins_frames_of(uint32_t kind, std::string_view bytes) {
    for (int frame = 0; frame < kFramesInARow; ++frame) {
        if (bytes.size() < kHeaderBytes || (mpeg_header_at(bytes, 0) & kKind) != kind) {
            return false;
        }
        const size_t length = mpeg_frame(mpeg_header_at(bytes, 0)).bytes;
        bytes.remove_prefix(std::min(length, bytes.size()));
    }
    return true;
}

}  // namespace

MpegShortcut::MpegShortcut(Input& input) : m_input(input) {
    const uint64_t tag = behind_id3(input);
    m_head = bytes_at(input, tag, kMpegHeadBytes);
    const size_t first = first_mpeg_frame(m_head);
    m_first = tag + first;
    m_head.erase(0, first);
    size_t at = 0;
    for (int frame = 0; frame < kFirstFrames && at + kHeaderBytes <= m_head.size(); ++frame) {
        at += mpeg_frame(mpeg_header_at(m_head, at)).bytes;
    }
    if (at + kHeaderBytes <= m_head.size() && !has_varying_rate(m_head)) {
        m_header = mpeg_header_at(m_head, at) & ~kPadded;
    }
    m_begin = m_end = m_first + at;
}

bool MpegShortcut::is_open() const {
    return mpeg_frame(m_header).bytes > 0;
}

void MpegShortcut::restart() {
    m_end = m_first + length().value_or(0);
    m_count = 0;
    m_input.seek(m_first);
}

void MpegShortcut::aim(uint64_t sample) {
    const uint64_t place = m_input.position();
    find_end(sample);
    m_input.seek(place);
}

// Frames are padded so that their lengths make up the bit rate: what lies before one is told to the
// byte, but for how the first of them was rounded.
void MpegShortcut::find_end(uint64_t sample) {
    m_count = 0;
    m_end = m_begin;
    const MpegFrame frame = mpeg_frame(m_header);
    const uint64_t count = sample / frame.samples - std::min(sample / frame.samples, kLastFrames);
    if (count > kMaxFrames) {
        return;
    }
    const uint64_t bytes = count * (frame.samples / 8) * frame.bit_rate / frame.rate_hz;
    if (bytes < kLeastBytes) {
        return;
    }
    const uint64_t from = m_begin + std::max(bytes - 1, count * frame.bytes);
    const std::string there = bytes_at(m_input, from, kMpegHeadBytes);
    for (size_t at = 0; at <= std::min<size_t>(m_begin + bytes + 1 - from, there.size()); ++at) {
        if (begins_frames_of(m_header & kKind, std::string_view(there).substr(at))) {
            m_count = count;
            m_end = from + at;
            return;
        }
    }
    m_header = 0;
}

// Frames are made up as evenly as they can be.
uint64_t MpegShortcut::place_of(uint64_t frame) const {
    return m_begin + frame * (m_end - m_begin) / m_count;
}

void MpegShortcut::make_up(uint64_t place, char* to, size_t size) const {
    std::memset(to, 0, size);
    if (m_count == 0) {
        return;
    }
    uint64_t frame = (place - m_begin) * m_count / (m_end - m_begin);
    for (; place_of(frame) < place + size; ++frame) {
        const uint64_t at = place_of(frame);
        const bool is_padded = place_of(frame + 1) - at > mpeg_frame(m_header).bytes;
        const uint32_t header = m_header | (is_padded ? kPadded : 0);
        for (uint64_t i = 0; i < kHeaderBytes; ++i) {
            if (at + i >= place && at + i < place + size) {
                to[at + i - place] = static_cast<char>(header >> (24 - 8 * i));
            }
        }
    }
}

size_t MpegShortcut::read(void* to, size_t size) {
    size_t done = 0;
    for (uint64_t place = m_input.position(); done < size && place < m_end;
         place = m_input.position()) {
        char* const rest = static_cast<char*>(to) + done;
        const uint64_t until = place < m_begin ? m_begin : m_end;
        const auto count = static_cast<size_t>(std::min<uint64_t>(size - done, until - place));
        if (place < m_begin) {
            std::memcpy(rest, m_head.data() + (place - m_first), count);
        } else {
            make_up(place, rest, count);
        }
        m_input.seek(place + count);
        done += count;
    }
    return done + m_input.read(static_cast<char*>(to) + done, size - done);
}

}  // namespace nuvio::reader
