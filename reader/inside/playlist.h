// Playlists: M3U (M3U8), PLS, XSPF and its JSON form JSPF, and CUE sheets.
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

// Those of a CUE sheet, each a part of a file beside it; of one with a fault, which is said, none.
// Any bytes; pure.
std::vector<ListedTrack> tracks_of_sheet(std::string_view text, size_t max_tracks,
                                         std::string* fault);

// The job: the text stands in `shared`, kPlaylistMemoryBytes, and the records behind it.
void read_playlist(const Request& request, char* shared, PlaylistAnswer* answer);

}  // namespace nuvio::reader
