// What a URL names: a remote track, or those of the playlists that it leads to.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "local/network/http_source.h"
#include "local/network/interruption.h"
#include "local/network/remote_playlist.h"

namespace local_core {

struct RemoteLimits {
    size_t tracks = 1000;
    size_t playlists = 32;                   // that are fetched
    int depth = 3;                           // of a playlist in a playlist
    size_t bytes = size_t{4} * 1024 * 1024;  // of all playlists
};

// What the request's URL names: its tracks in order, or itself as the only one when it is no
// playlist. A playlist's only entry, and entries named like playlists, are asked what they are. A
// FLAC file that is asked is its tracks, where a sheet is inside. An inner playlist that can't be
// had is passed over; empty, with *failure and *error set, where nothing is left. Else *error says
// which sheet is no good, if one is.
// The request's token goes with what lies on its origin alone. Blocks as HttpSource::open() does,
// until the interruption at the latest.
std::vector<RemoteTrack> find_remote_tracks(const HttpRequest& request, const RemoteLimits& limits,
                                            Interruption& interruption, HttpFailure* failure,
                                            std::string* error);

}  // namespace local_core
