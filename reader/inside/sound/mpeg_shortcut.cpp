#include "reader/inside/sound/mpeg_shortcut.h"

#include <algorithm>
#include <cstring>
#include <string>
#include <string_view>

#include "reader/inside/id3_tag.h"
#include "reader/inside/sound/mpeg_sync.h"

namespace nuvio::reader {

namespace {

constexpr uint32_t kPadded = 0x200;
constexpr uint32_t kOneBitRate = 0x1000;
constexpr uint32_t kKindOfOneRate = kMpegKind | kMpegBitRate;
// Real ones that a decoder looks at before it goes anywhere. In the first of them may stand what
// tells of the whole sound, at another bit rate.
constexpr uint64_t kFirstFrames = 4;
// Real ones before the place: sound is stored up to 511 bytes ahead of its frame, and shaped by the
// frame before.
constexpr uint64_t kLastFrames = 32;
constexpr uint64_t kRunInFrames = 8;
// Fewer bytes are sooner read than left out, or read for the sake of the frame.
constexpr uint64_t kLeastBytes = uint64_t{256} << 10U;
constexpr uint64_t kLeastBytesRoughly = uint64_t{4} << 20U;
// Two days; keeps the arithmetic far from overflow.
constexpr uint64_t kMaxFrames = uint64_t{1} << 23U;
// As many frames of one kind in a row are where frames are thought to be.
constexpr int kFramesInARow = 5;

uint64_t number_in(std::string_view bytes, size_t at) {
    return at + kMpegHeaderBytes <= bytes.size() ? mpeg_header_at(bytes, at) : 0;
}

}  // namespace

MpegShortcut::MpegShortcut(Input& input) : m_input(input) {
    const uint64_t tag = behind_id3(input);
    m_head = bytes_at(input, tag, kMpegHeadBytes);
    const size_t first = first_mpeg_frame(m_head);
    m_first = tag + first;
    m_head.erase(0, first);
    size_t at = 0;
    for (uint64_t frame = 0; frame < kFirstFrames && at + kMpegHeaderBytes <= m_head.size();
         ++frame) {
        at += mpeg_frame(mpeg_header_at(m_head, at)).bytes;
    }
    const bool varies = m_head.find("Xing") < at || m_head.find("VBRI") < at;
    const uint64_t bytes = input.length().value_or(0);
    if (varies && bytes > m_first + kLeastBytesRoughly) {
        m_table = table_in(m_head, bytes - m_first);
    }
    if (at + kMpegHeaderBytes <= m_head.size() && varies == is_rough()) {
        m_header = mpeg_header_at(m_head, at) & ~kPadded;
    }
    m_begin = m_jump.end = m_first + at;
}

// Behind the name stand flags, how many frames and bytes there are, and the table.
MpegShortcut::Table MpegShortcut::table_in(std::string_view first_frame, uint64_t bytes) {
    constexpr uint64_t kHasAll = 7;
    constexpr size_t kFlags = 4, kFrames = 8, kBytes = 12, kPlaces = 16;
    const size_t name = first_frame.find("Xing");
    Table table;
    if (name == std::string_view::npos ||
        name + kPlaces + table.places.size() > first_frame.size() ||
        (number_in(first_frame, name + kFlags) & kHasAll) != kHasAll) {
        return {};
    }
    table.frames = number_in(first_frame, name + kFrames);
    table.bytes = std::min<uint64_t>(number_in(first_frame, name + kBytes), bytes);
    std::ranges::transform(first_frame.substr(name + kPlaces, table.places.size()),
                           table.places.begin(),
                           [](char place) { return static_cast<uint8_t>(place); });
    return table;
}

void MpegShortcut::restart() {
    m_jump = {0, m_first + length().value_or(0)};
    m_input.seek(m_first);
}

void MpegShortcut::take(const std::optional<Jump>& jump) {
    m_jump = jump.value_or(Jump{0, m_begin});
}

std::optional<MpegShortcut::Jump> MpegShortcut::find(uint64_t sample, uint64_t from) {
    const uint64_t least = is_rough() ? kLeastBytesRoughly : kLeastBytes;
    const uint64_t place = m_input.position();
    auto jump = is_rough() ? find_by_table(sample) : find_by_rate(sample);
    m_input.seek(place);
    const bool is_good = jump && jump->end >= std::max(m_begin, from) + least && divide(&*jump);
    return is_good ? jump : std::nullopt;
}

// The first frames of a kind there, if there are any.
std::optional<uint64_t> MpegShortcut::frames_at(uint64_t place, size_t within, uint32_t mask) {
    const std::string there = bytes_at(m_input, place, std::max(within, kMpegHeadBytes));
    for (size_t at = 0; at <= std::min(within, there.size()); ++at) {
        if (mpeg_frames_follow(std::string_view(there).substr(at), m_header, mask, kFramesInARow)) {
            return place + at;
        }
    }
    return std::nullopt;
}

// Frames are padded so that their lengths make up the bit rate: what lies before one is told to the
// byte, but for how the first of them was rounded.
std::optional<MpegShortcut::Jump> MpegShortcut::find_by_rate(uint64_t sample) {
    const MpegFrame frame = mpeg_frame(m_header);
    const uint64_t count = sample / frame.samples - std::min(sample / frame.samples, kLastFrames);
    const uint64_t bytes = count * (frame.samples / 8) * frame.bit_rate / frame.rate_hz;
    if (count > kMaxFrames || bytes < kLeastBytes) {
        return std::nullopt;
    }
    const uint64_t from = m_begin + std::max(bytes - 1, count * frame.bytes);
    const auto end = frames_at(from, m_begin + bytes + 1 - from, kKindOfOneRate);
    if (!end) {
        m_header = 0;
        return std::nullopt;
    }
    return Jump{count, *end, (count + kFirstFrames + kRunInFrames) * frame.samples};
}

// A hundredth is at most at the next of 256 parts, and encoders look once in so many frames where
// they are. The frame that has the table is none of sound.
std::optional<MpegShortcut::Jump> MpegShortcut::find_by_table(uint64_t sample) {
    constexpr size_t kLongestFrame = 1441;
    constexpr uint64_t kLooks = 200;
    const uint64_t samples = mpeg_frame(m_header).samples;
    const uint64_t wanted = sample / samples - std::min(sample / samples, kLastFrames);
    if (m_table.frames > kMaxFrames || wanted >= m_table.frames) {
        return std::nullopt;
    }
    const size_t hundredth = wanted * m_table.places.size() / m_table.frames;
    const uint64_t at_least = hundredth * m_table.frames / m_table.places.size();
    const uint64_t frame = at_least - std::min(at_least, m_table.frames / kLooks);
    const uint64_t place = m_first + (m_table.places[hundredth] + 1U) * m_table.bytes / 256;
    const auto end = frame >= kFirstFrames && place > m_begin
                         ? frames_at(place, kLongestFrame, kMpegKind)
                         : std::nullopt;
    return end ? std::optional(
                     Jump{frame - (kFirstFrames - 1), *end, (frame + kRunInFrames) * samples})
               : std::nullopt;
}

// Frames of two bit rates next to each other fill any number of bytes. False: none are so long, or
// so short.
bool MpegShortcut::divide(Jump* jump) const {
    const uint64_t bytes = jump->end - m_begin;
    const auto fits = [&](uint32_t header) {
        const uint64_t length = mpeg_frame(header).bytes;
        return length > 0 && jump->count * length <= bytes;
    };
    jump->low_header = is_rough() ? (m_header & ~kMpegBitRate) | kOneBitRate : m_header;
    while (is_rough() && fits(jump->low_header + kOneBitRate)) {
        jump->low_header += kOneBitRate;
    }
    jump->high_header = jump->low_header + (is_rough() ? kOneBitRate : 0);
    const uint64_t low = mpeg_frame(jump->low_header).bytes;
    const uint64_t high = std::max<uint64_t>(mpeg_frame(jump->high_header).bytes, low);
    const uint64_t left = bytes - std::min(bytes, jump->count * low);
    const uint64_t high_count = high > low ? left / (high - low) : 0;
    jump->low_count = jump->count - std::min(jump->count, high_count);
    jump->padded_count = left - high_count * (high - low);
    return fits(jump->low_header) && jump->padded_count <= jump->count;
}

uint64_t MpegShortcut::place_of(uint64_t frame) const {
    const uint64_t low = mpeg_frame(m_jump.low_header).bytes;
    const uint64_t high_count = frame - std::min(frame, m_jump.low_count);
    return m_begin + (frame - high_count) * low +
           high_count * mpeg_frame(m_jump.high_header).bytes + std::min(frame, m_jump.padded_count);
}

// The last one that begins there, or before.
uint64_t MpegShortcut::frame_at(uint64_t place) const {
    uint64_t frame = 0;
    for (uint64_t behind = m_jump.count; behind - frame > 1;) {
        const uint64_t middle = frame + (behind - frame) / 2;
        (place_of(middle) <= place ? frame : behind) = middle;
    }
    return frame;
}

void MpegShortcut::make_up(uint64_t place, char* to, size_t size) const {
    std::memset(to, 0, size);
    if (m_jump.count == 0) {
        return;
    }
    for (uint64_t frame = frame_at(place); place_of(frame) < place + size; ++frame) {
        const uint64_t at = place_of(frame);
        const uint32_t header =
            (frame < m_jump.low_count ? m_jump.low_header : m_jump.high_header) |
            (frame < m_jump.padded_count ? kPadded : 0);
        for (uint64_t i = 0; i < kMpegHeaderBytes; ++i) {
            if (at + i >= place && at + i < place + size) {
                to[at + i - place] = static_cast<char>(header >> (24 - 8 * i));
            }
        }
    }
}

size_t MpegShortcut::read(void* to, size_t size) {
    size_t done = 0;
    for (uint64_t place = m_input.position(); done < size && place < m_jump.end;
         place = m_input.position()) {
        char* const rest = static_cast<char*>(to) + done;
        const uint64_t until = place < m_begin ? m_begin : m_jump.end;
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
