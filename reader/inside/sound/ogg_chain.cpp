#include "reader/inside/sound/ogg_chain.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

namespace nuvio::reader {

namespace {

constexpr std::string_view kName = "OggS";
constexpr size_t kPageHeadBytes = 27;
constexpr size_t kMaxPageBytes = 65307;
constexpr size_t kMaxStreams = 16;  // side by side

struct Page {
    uint64_t place;
    uint64_t end;
    uint32_t stream;
    bool is_first;  // of its stream
};

// The page that begins there, when its lengths are among the bytes.
std::optional<Page> page_in(std::string_view bytes, size_t at, uint64_t place) {
    constexpr std::string_view kMark("OggS\0", 5);
    constexpr size_t kFlags = 5;
    constexpr size_t kStream = 14;
    constexpr size_t kSegments = 26;
    const auto byte = [&](size_t i) { return static_cast<uint8_t>(bytes[at + i]); };
    if (!bytes.substr(at).starts_with(kMark) || at + kPageHeadBytes > bytes.size() ||
        at + kPageHeadBytes + byte(kSegments) > bytes.size()) {
        return std::nullopt;
    }
    Page page{place, place + kPageHeadBytes + byte(kSegments), 0, (byte(kFlags) & 2) != 0};
    for (size_t i = 0; i < byte(kSegments); ++i) {
        page.end += byte(kPageHeadBytes + i);
    }
    for (size_t i = 4; i > 0; --i) {
        page.stream = page.stream << 8 | byte(kStream + i - 1);
    }
    return page;
}

class Chain {
  public:
    Chain(Input& input, uint64_t length) : m_input(input), m_length(length) {}

    std::vector<OggPiece> pieces() {
        std::vector<OggPiece> pieces;
        const auto last = last_page();
        std::optional<uint64_t> begin = 0;
        while (begin && last) {
            const std::vector<uint32_t> streams = streams_at(*begin);
            pieces.push_back({*begin, end_behind(*last)});
            const bool is_last = streams.empty() || std::ranges::count(streams, last->stream) > 0;
            begin = is_last ? std::nullopt : next_piece(&pieces.back(), last->place, streams);
        }
        return pieces;
    }

  private:
    // The first page that begins at a place or behind it, before `end`; what looks like one has
    // another one behind it.
    std::optional<Page> page_after(uint64_t place, uint64_t end) {
        for (; place < end; place += kMaxPageBytes) {
            const std::string bytes = bytes_at(m_input, place, 2 * kMaxPageBytes + kName.size());
            for (size_t at = bytes.find(kName); at < kMaxPageBytes;
                 at = bytes.find(kName, at + 1)) {
                const auto page = page_in(bytes, at, place + at);
                if (page && page->place < end &&
                    (page->end == m_length ||
                     bytes.compare(std::min<size_t>(page->end - place, bytes.size()), kName.size(),
                                   kName) == 0)) {
                    return page;
                }
            }
        }
        return std::nullopt;
    }

    std::optional<Page> last_page() {
        std::optional<Page> last;
        uint64_t from = m_length - std::min<uint64_t>(m_length, kMaxPageBytes);
        while (const auto page = page_after(from, m_length)) {
            last = page;
            from = page->end;
        }
        return last;
    }

    // Of the page behind it, where that is whole: what stands behind a sound, a tag, is no page.
    uint64_t end_behind(const Page& last) {
        const auto page = page_in(bytes_at(m_input, last.end, kMaxPageBytes), 0, last.end);
        return page && page->end <= m_length ? page->end : last.end;
    }

    // The streams that begin there.
    std::vector<uint32_t> streams_at(uint64_t place) {
        std::vector<uint32_t> streams;
        for (auto page = page_after(place, place + 1);
             page && page->is_first && streams.size() < kMaxStreams;
             page = page_after(page->end, page->end + 1)) {
            streams.push_back(page->stream);
        }
        return streams;
    }

    // Where a piece of these streams is followed by another one, before a place that is not its
    // own.
    std::optional<uint64_t> next_piece(OggPiece* piece, uint64_t behind,
                                       const std::vector<uint32_t>& streams) {
        const auto is_of_piece = [&](const Page& page) {
            return std::ranges::count(streams, page.stream) > 0;
        };
        piece->end = piece->begin;
        while (behind - piece->end > kMaxPageBytes) {
            const uint64_t middle = piece->end + (behind - piece->end) / 2;
            const auto page = page_after(middle, behind);
            if (page && is_of_piece(*page)) {
                piece->end = page->end;
            } else {
                behind = middle;
            }
        }
        auto page = page_after(piece->end, m_length);
        for (; page && is_of_piece(*page); page = page_after(page->end, m_length)) {
            piece->end = page->end;
        }
        return page ? std::optional(page->place) : std::nullopt;
    }

    Input& m_input;
    const uint64_t m_length;
};

}  // namespace

std::vector<OggPiece> ogg_pieces(Input& input) {
    const auto length = input.is_radio() ? std::nullopt : input.length();
    std::array<char, kName.size()> head{};
    std::vector<OggPiece> pieces;
    input.read(head.data(), head.size());
    if (length && std::string_view(head.data(), head.size()) == kName) {
        pieces = Chain(input, *length).pieces();
    }
    input.seek(0);
    return pieces;
}

}  // namespace nuvio::reader
