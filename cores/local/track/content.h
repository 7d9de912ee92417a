// What a session's endpoint names: one audio file, a folder of them, a playlist or a radio, of this
// machine or of the network.
//
// Any thread but the loop's, unless said otherwise: disks and servers may be slow or hang.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "common/music/section.h"
#include "local/base/logger.h"
#include "local/network/http_source.h"
#include "local/network/interruption.h"

namespace local_core {

struct Track {
    std::string location;  // a path, or the URL of a remote track
    // From the playlist, fit for display; possibly empty.
    std::string title{};
    std::string artist{};
    std::string album{};
    std::string album_art_url{};
    uint64_t duration_ms = 0;  // 0: not said
    nuvio::Section section{};  // which part of what lies there it is
    // How a remote track is asked for, whatever its own URL; null for a file of this machine.
    std::shared_ptr<const HttpRequest> remote{};

    HttpRequest request() const {
        HttpRequest request = *remote;
        request.url = location;
        return request;
    }
};

// What find_tracks() may find: a path or file:// URL, or a http:// or https:// one. Looks at
// nothing but the text; any thread.
bool is_findable(const std::string& endpoint);

// Finds the tracks that `endpoint` names, in playing order. On this machine:
//   - a folder: the audio files in it and below it (by the endings that the decoder knows), in the
//     order of their paths, hidden ones and linked folders left out; at most 20,000 tracks, 16
//     levels and 50,000 directory entries;
//   - a playlist (.m3u, .m3u8): its entries, relative ones against the playlist's folder; at most
//     20,000 of them and 4 MiB; remote addresses are skipped;
//   - anything else: itself.
// Paths and titles are at most 8 MiB. What lies outside of the music folders (files.h) is left out.
// On the network: see remote_tracks.h; `token` goes to the endpoint's own origin.
//
// Logs what it leaves out. Empty when nothing is found. Blocks, where the network is asked until
// the interruption at the latest.
std::vector<Track> find_tracks(const std::string& endpoint, const std::string& token,
                               Interruption& interruption, const Logger& logger);

}  // namespace local_core
