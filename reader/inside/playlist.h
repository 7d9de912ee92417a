// Playlists: M3U (M3U8), PLS, XSPF and its JSON form JSPF.
#pragma once

#include <cstddef>
#include <string_view>
#include <vector>

#include "common/unique_fd.h"
#include "reader/playlist.h"
#include "reader/protocol.h"

namespace nuvio::reader {

// The tracks that a playlist names, in their order; of a broken one those before the fault. Any
// bytes; pure.
std::vector<ListedTrack> parse_playlist(PlaylistFormat format, std::string_view text,
                                        size_t max_tracks);

// The job: the text stands in `shared`, kPlaylistMemoryBytes, and the records behind it.
void read_playlist(const Request& request, char* shared, PlaylistAnswer* answer);

}  // namespace nuvio::reader
