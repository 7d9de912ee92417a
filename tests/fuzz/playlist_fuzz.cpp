// Playlists of the disk before a file is touched, those of a server in every format, and a radio's
// texts between its audio bytes.
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "common/m3u.h"
#include "fuzz/expect.h"
#include "local/network/icy.h"
#include "local/network/remote_playlist.h"
#include "local/texts/display_text.h"
#include "local/texts/file_url.h"
#include "reader/inside/media_playlist.h"
#include "reader/inside/playlist.h"
#include "reader/inside/sound/mpeg_sync.h"
#include "reader/inside/sound/ogg_end.h"

using namespace local_core;
using namespace nuvio::reader;

namespace {

constexpr size_t kMaxTracks = 100;

void read_own_playlist(std::string_view text) {
    const auto entries = nuvio::parse_m3u(text, kMaxTracks);
    FUZZ_EXPECT(entries.size() <= kMaxTracks);
    for (const nuvio::PlaylistEntry& entry : entries) {
        FUZZ_EXPECT(!entry.location.empty());
        FUZZ_EXPECT(entry.location.find_first_of(std::string_view("\r\n\0", 3)) ==
                    std::string::npos);
        path_from_file_url(entry.location);
    }
}

void read_playlists(std::string_view text) {
    playlist_format("", text.substr(0, kPlaylistHeadBytes));
    for (const PlaylistFormat format :
         {PlaylistFormat::none, PlaylistFormat::m3u, PlaylistFormat::pls, PlaylistFormat::xspf,
          PlaylistFormat::jspf, PlaylistFormat::cue}) {
        std::string records, fault;
        for (const ListedTrack& track : format == PlaylistFormat::cue
                                            ? tracks_of_sheet(text, kMaxTracks, &fault)
                                            : parse_playlist(format, text, kMaxTracks)) {
            records += record_of(track);
        }
        // What a reader says, and what one could say that a playlist has taken over.
        const auto listed = tracks_in(format == PlaylistFormat::none ? text : records, kMaxTracks);
        const auto tracks = resolved_tracks(listed, "https://host/folder/list");
        FUZZ_EXPECT(tracks.size() <= kMaxTracks);
        for (const RemoteTrack& track : tracks) {
            FUZZ_EXPECT(track.url.starts_with("http://") || track.url.starts_with("https://"));
            FUZZ_EXPECT(track.image.empty() || track.image.starts_with("http"));
            FUZZ_EXPECT(display_text(track.title) == track.title);
        }
    }
}

void expect_sound(const MediaPlaylist& playlist) {
    FUZZ_EXPECT(playlist.segments.size() <= kMaxTracks);
    const std::string record = record_of(playlist);
    FUZZ_EXPECT(record_of(media_playlist_in(record, kMaxTracks)) == record);
}

void read_media_playlist(std::string_view text) {
    const MediaPlaylist playlist = parse_media_playlist(text, kMaxTracks);
    expect_sound(playlist);
    for (const MediaSegment& segment : playlist.segments) {
        FUZZ_EXPECT(segment.init == MediaSegment::kNoInit || segment.init < playlist.inits.size());
    }
    expect_sound(media_playlist_in(text, kMaxTracks));  // of a reader that is not one any more
}

std::ptrdiff_t end_of_ogg(std::string_view bytes, size_t piece) {
    OggEnd end;
    for (size_t i = 0; i < bytes.size(); i += piece) {
        if (const auto found = end.find(bytes.substr(i, piece))) {
            return static_cast<std::ptrdiff_t>(i) + *found;
        }
    }
    return -1;
}

// In one piece or byte by byte, the same comes out, and no more than went in.
void read_radio(std::string_view bytes) {
    const size_t interval = bytes.empty() ? 0 : static_cast<uint8_t>(bytes[0]);
    const auto filtered = [&](size_t piece) {
        IcyFilter filter(interval);
        std::string out;
        const auto keep = [&](std::string_view text) { out += text; };
        for (size_t i = 0; i < bytes.size(); i += piece) {
            filter.feed(bytes.substr(i, piece), keep, keep);
        }
        return out;
    };
    const std::string whole = filtered(bytes.size() + 1);
    FUZZ_EXPECT(whole.size() <= bytes.size());
    FUZZ_EXPECT(whole == filtered(1));
    FUZZ_EXPECT(first_mpeg_frame(bytes) <= bytes.size());
    FUZZ_EXPECT(end_of_ogg(bytes, bytes.size() + 1) == end_of_ogg(bytes, 1));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string_view input(reinterpret_cast<const char*>(data), size);
    read_own_playlist(input);
    read_playlists(input);
    read_media_playlist(input);
    read_radio(input);
    return 0;
}
