// M3U playlists, read and written. Pure functions, any thread; input may be any bytes.
#pragma once

#include <algorithm>
#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

#include "common/text.h"
#include "common/utf8.h"

namespace nuvio {

struct PlaylistEntry {
    std::string location;  // a path or URL as written, never empty
    std::string title;     // from #EXTINF, as written; possibly empty
};

namespace m3u {

inline constexpr size_t kMaxLineBytes = 4096;
inline constexpr std::string_view kInfoTag = "#EXTINF:";

// Up to the next line's end, which is taken off as well.
inline std::string_view take_line(std::string_view& text) {
    const size_t end = text.find_first_of("\r\n");
    const std::string_view line = text.substr(0, end);
    text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
    return line;
}

// "#EXTINF:123 key="a,b",Artist - Title": what follows the first comma outside quotes.
inline std::string_view title_of(std::string_view info) {
    bool quoted = false;
    for (size_t i = 0; i < info.size(); ++i) {
        if (info[i] == '"') {
            quoted = !quoted;
        } else if (info[i] == ',' && !quoted) {
            return trim(info.substr(i + 1));
        }
    }
    return {};
}

// As a line of its own, and so that it is read again.
inline bool is_location(std::string_view text) {
    return !text.empty() && text.size() <= kMaxLineBytes && trim(text) == text &&
           !text.starts_with('#') && std::ranges::none_of(text, is_control);
}

}  // namespace m3u

// Reads the text of an M3U playlist, plain or extended: one location a line, lines that end in LF,
// CRLF or CR, a byte order mark, comments. At most `max_entries` entries come back, and lines
// beyond 4096 bytes or with a NUL are passed over.
inline std::vector<PlaylistEntry> parse_m3u(std::string_view text, size_t max_entries) {
    using m3u::kInfoTag;
    using m3u::kMaxLineBytes;
    text = without_byte_order_mark(text);
    std::vector<PlaylistEntry> entries;
    std::string_view title;
    while (!text.empty() && entries.size() < max_entries) {
        const std::string_view line = trim(m3u::take_line(text));
        if (line.empty() || line.size() > kMaxLineBytes ||
            line.find('\0') != std::string_view::npos) {
            continue;
        }
        if (line.starts_with(kInfoTag)) {
            title = m3u::title_of(line.substr(kInfoTag.size()));
        } else if (!line.starts_with('#')) {
            entries.push_back({std::string(line), std::string(title)});
            title = {};
        }
    }
    return entries;
}

// The text of a playlist of these, in UTF-8 where they are; locations that none can name are left
// out.
inline std::string write_m3u(const std::vector<PlaylistEntry>& entries) {
    std::string text = "#EXTM3U\n";
    for (const PlaylistEntry& entry : entries) {
        if (m3u::is_location(entry.location)) {
            text.append(m3u::kInfoTag).append("-1,").append(printable(entry.title)).append("\n");
            text.append(entry.location).append("\n");
        }
    }
    return text;
}

}  // namespace nuvio
