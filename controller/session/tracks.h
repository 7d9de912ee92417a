// What a device is told of tracks: as the session's content (a playlist in JSPF), or by commands of
// its channel. Pure functions, any thread.
#pragma once

#include <string>
#include <vector>

#include "common/json/json.h"
#include "controller/library/library.h"
#include "controller/session/device_state.h"

namespace nuvio::controller {

using ToldTracks = std::vector<ToldTrack>;

ToldTracks told(const std::vector<Playable>& items);

// `here`: "http://192.168.1.5:8090", how the device reaches this controller.
std::string playlist_of(const ToldTracks& tracks, const std::string& here);

// The same as arrays for "tracks" of the commands, each at most 500 long and 48 KiB of text, so
// that it fits into a message.
std::vector<JsonPtr> track_lists(const ToldTracks& tracks, const std::string& here);

// The library's track behind the URL of a ToldTrack; 0: none.
int64_t track_id_of(const std::string& url);

}  // namespace nuvio::controller
