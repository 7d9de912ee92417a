// Playlists that come from the network: M3U (M3U8), PLS, XSPF and its JSON form JSPF, and CUE
// sheets, told apart by Content-Type and bytes. Whatever they hold, only http and https URLs come
// out.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "common/music/section.h"
#include "reader/playlist.h"
#include "reader/protocol.h"
#include "reader/sheet.h"

namespace local_core {

using nuvio::reader::PlaylistFormat;

struct RemoteTrack {
    std::string url;  // absolute
    // Fit for display, at most a kilobyte each; empty where the playlist has none.
    std::string title;
    std::string creator;
    std::string album;
    std::string image;  // absolute URL
    std::optional<uint64_t> duration_ms;
    nuvio::Section section;
};

// `head`: the content's first bytes, kPlaylistHeadBytes are plenty. Pure; any thread.
constexpr size_t kPlaylistHeadBytes = 4096;
PlaylistFormat playlist_format(std::string_view content_type, std::string_view head);

// Not of tracks but of the segments of one stream, or of its versions (HLS): its tags say so. It
// begins with the mark.
constexpr std::string_view kStreamPlaylistMark = "#EXTM3U";
bool is_stream_playlist(std::string_view text);

// The track itself, or the tracks that the sheet inside its file makes of it.
std::vector<RemoteTrack> parts_of(RemoteTrack track,
                                  const std::vector<nuvio::reader::SheetTrack>& sheet);

// Of what a playlist says, whatever that is: entries without a usable URL are passed over. `base`
// is the playlist's own URL. Pure; any thread.
std::vector<RemoteTrack> resolved_tracks(const std::vector<nuvio::reader::ListedTrack>& listed,
                                         const std::string& base);

}  // namespace local_core
