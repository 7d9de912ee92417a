#include "reader/ffmpeg/adts_index.h"

#include <algorithm>
#include <iterator>
#include <utility>

#include "reader/inside/id3_tag.h"

namespace nuvio::reader {

namespace {

constexpr size_t kHeadBytes = 7;
constexpr uint64_t kStride = 16;
constexpr uint64_t kMaxPackets = uint64_t{1} << 26U;  // two weeks
constexpr size_t kReadBytes = size_t{32} << 10U;
// Longer files are not read through before they play; remote ones never.
constexpr uint64_t kMaxCounted = uint64_t{32} << 20U;
constexpr uint64_t kGuessedBy = uint64_t{64} << 10U;  // bytes

}  // namespace

AdtsIndex::Head AdtsIndex::head_in(const char* bytes) {
    constexpr uint32_t kRates[] = {96000, 88200, 64000, 48000, 44100, 32000, 24000,
                                   22050, 16000, 12000, 11025, 8000,  7350};
    const auto at = [bytes](size_t i) { return static_cast<uint8_t>(bytes[i]); };
    const size_t rate = at(2) >> 2U & 0xfU;
    const size_t size = (at(3) & 3U) << 11U | static_cast<size_t>(at(4)) << 3U | at(5) >> 5U;
    const bool has_one_block = (at(6) & 3U) == 0;
    const bool is_head = at(0) == 0xff && (at(1) & 0xf6U) == 0xf0 && rate < std::size(kRates) &&
                         size > kHeadBytes && has_one_block;
    return is_head ? Head{size, kRates[rate]} : Head{};
}

// None at the end.
std::optional<AdtsIndex::Head> AdtsIndex::head_at(uint64_t place) {
    if (place < m_read_at || place + kHeadBytes > m_read_at + m_read.size()) {
        m_read_at = place;
        m_read = bytes_at(m_input, place, kReadBytes);
    }
    const uint64_t at = place - m_read_at;
    return at + kHeadBytes <= m_read.size() ? std::optional(head_in(m_read.data() + at))
                                            : std::nullopt;
}

// Over what is no packet of this kind to one before `end`, whose bytes are returned; 0: none is
// whole.
size_t AdtsIndex::find_next(uint64_t end) {
    for (; m_next < end; ++m_next) {
        const auto head = head_at(m_next);
        if (!head) {
            return 0;
        }
        if (head->bytes > 0 && head->rate_hz == m_rate_hz) {
            return m_next + head->bytes <= m_input.length().value_or(0) ? head->bytes : 0;
        }
    }
    return 0;
}

// Of those that begin before `end`.
void AdtsIndex::count_up_to(uint64_t packets, uint64_t end) {
    const uint64_t from = m_input.position();
    while (m_packets < std::min(packets, kMaxPackets)) {
        const size_t bytes = find_next(end);
        if (bytes == 0) {
            break;
        }
        if (m_packets % kStride == 0) {
            m_places.push_back(m_next);
        }
        ++m_packets;
        m_next += bytes;
    }
    m_input.seek(from);
}

std::unique_ptr<AdtsIndex> AdtsIndex::open(Input& input) {
    constexpr int kInARow = 3;
    std::unique_ptr<AdtsIndex> made(new AdtsIndex(input));
    AdtsIndex& index = *made;
    index.m_begin = behind_id3(input);
    uint64_t place = index.m_begin;
    for (int n = 0; n < kInARow; ++n) {
        const auto head = index.head_at(place);
        index.m_rate_hz = head && n == 0 ? head->rate_hz : index.m_rate_hz;
        // A file may end with its first one.
        const bool is_over = n > 0 && place == input.length();
        if (!is_over && (!head || head->bytes == 0 || head->rate_hz != index.m_rate_hz)) {
            index.m_rate_hz = 0;
        }
        place += head ? head->bytes : 0;
    }
    index.m_next = index.m_begin;
    input.seek(0);
    return index.m_rate_hz > 0 ? std::move(made) : nullptr;
}

AdtsIndex::Count AdtsIndex::count() {
    const uint64_t length = m_input.length().value_or(0);
    const bool is_guess = !m_input.is_at_hand() || length > kMaxCounted;
    count_up_to(UINT64_MAX, is_guess ? m_begin + kGuessedBy : length);
    const bool is_at_end = m_next >= length;
    if (!is_guess || is_at_end || m_packets == 0) {
        return {m_packets, false};
    }
    const double per_byte = static_cast<double>(m_packets) / static_cast<double>(m_next - m_begin);
    return {static_cast<uint64_t>(per_byte * static_cast<double>(length - m_begin)), true};
}

std::optional<AdtsIndex::Place> AdtsIndex::place_of(uint64_t packet) {
    count_up_to(packet + 1, UINT64_MAX);
    if (packet >= m_packets) {
        return std::nullopt;
    }
    const uint64_t row = packet / kStride;
    return Place{row * kStride, m_places[static_cast<size_t>(row)]};
}

}  // namespace nuvio::reader
