// What an HLS playlist says of one stream, on its way from a reader.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace nuvio::reader {

// Bytes of a file, whose place is as written: nothing is resolved.
struct MediaPart {
    std::string location;
    uint64_t first = 0;
    uint64_t size = 0;  // 0: all from there on

    bool operator==(const MediaPart&) const = default;
};

struct MediaSegment {
    static constexpr uint32_t kNoInit = UINT32_MAX;

    MediaPart part;
    std::string title;         // as written
    uint64_t duration_us = 0;  // 0: not said
    uint32_t init = kNoInit;   // which of the playlist's, that goes before it
    bool is_cut = false;       // it does not go on from the one before
};

struct MediaPlaylist {
    // Of a playlist of the versions of one stream: the one to be played, as written; else empty.
    std::string variant;
    uint64_t first_number = 0;  // of the first segment
    uint64_t target_s = 0;      // no segment is longer, as it says
    bool has_end = false;       // nothing will be added
    bool is_encrypted = false;
    std::vector<MediaPart> inits;
    std::vector<MediaSegment> segments;
};

std::string record_of(const MediaPlaylist& playlist);
// What a record says, as far as it is one; any bytes.
MediaPlaylist media_playlist_in(std::string_view record, size_t max_segments);

}  // namespace nuvio::reader
