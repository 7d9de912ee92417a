// HLS playlists: of the segments of one stream, or of the versions that there are of it.
#pragma once

#include <cstddef>
#include <string_view>

#include "reader/media_playlist.h"

namespace nuvio::reader {

// What a playlist says; of one that goes on the last segments, else the first. Of its versions the
// one for listeners: the best that is sound alone, else the one with the fewest bits. Any bytes;
// pure.
MediaPlaylist parse_media_playlist(std::string_view text, size_t max_segments);

}  // namespace nuvio::reader
