// What a session's endpoint names: one audio file, a folder of them, a playlist or a radio, of this
// machine or of the network.
//
// Any thread but the loop's, unless said otherwise: disks and servers may be slow or hang.
#pragma once

#include <cstddef>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "common/music/section.h"
#include "local/base/logger.h"
#include "local/network/http_source.h"
#include "local/network/interruption.h"
#include "local/network/remote_settings.h"

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
    // One that is to be heard at once.
    void note_asked() {
        if (remote) {
            remote = std::make_shared<const HttpRequest>(asked_just_now(*remote));
        }
    }
};

// Of what lies on this machine.
struct ContentLimits {
    static constexpr size_t kTracks = 20000;
    static constexpr size_t kDirectoryEntries = 50000;
    static constexpr size_t kTextBytes = size_t{8} << 20;  // paths and texts of all tracks together
    static constexpr size_t kLookedInto = 200;             // files that are opened before one plays
};

// What find_tracks() may find: a path or file:// URL, or a http:// or https:// one. Looks at
// nothing but the text; any thread.
bool is_findable(const std::string& endpoint);

// Where a list of `count` tracks is to begin, shuffled or not: `#start=3` behind an address on the
// network, a place from 0. None: not said, or no place in it.
std::optional<size_t> start_of(const std::string& endpoint, size_t count);

// Finds the tracks that `endpoint` names, in playing order. On this machine:
//   - a folder: the audio files in it and below it (by the endings that the decoder knows), in the
//     order of their paths, hidden ones and linked folders left out; at most 20,000 tracks, 16
//     levels and 50,000 directory entries;
//   - a playlist (.m3u, .m3u8): its entries, relative ones against the playlist's folder; at most
//     20,000 of them and 4 MiB; remote addresses are skipped;
//   - a CUE sheet: the files that it names, in its order;
//   - anything else: itself.
// A file that a sheet beside it or, of the first ContentLimits::kLookedInto FLAC files, inside it
// takes apart is its tracks, wherever it is named. Paths and titles are at most 8 MiB. What lies
// outside of the music folders (files.h) is left out. On the network: see remote_tracks.h; `token`
// goes to the endpoint's own origin.
//
// Logs what it leaves out. Empty when nothing is found, *failure then why, as far as that is known.
// Blocks, where the network is asked until the interruption at the latest.
std::vector<Track> find_tracks(const std::string& endpoint, const std::string& token,
                               Interruption& interruption, const Logger& logger,
                               std::string* failure);

}  // namespace local_core
