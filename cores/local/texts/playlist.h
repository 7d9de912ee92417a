// M3U playlists.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace local_core {

struct PlaylistEntry {
    std::string location;  // a path or URL as written, never empty
    std::string title;     // from #EXTINF, as written; possibly empty
};

// Reads the text of an M3U playlist, plain or extended: one location a line, lines that end in LF,
// CRLF or CR, a byte order mark, comments. Any bytes are accepted; at most `max_entries` entries
// come back, and lines beyond 4096 bytes or with a NUL are passed over. Pure; any thread.
std::vector<PlaylistEntry> parse_playlist(std::string_view text, size_t max_entries);

}  // namespace local_core
