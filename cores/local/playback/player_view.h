// How the device is: what the queries answer, the delegates report and the session's server is
// told. Plain data.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

#include "sdk/nuvio_connect.h"

namespace local_core {

// Values that a call sets and a later pass of the loop acts on.
struct PlaybackSettings {
    // What a volume counts as that nobody has set yet.
    static constexpr uint32_t kAssumedVolume = 50;

    std::string device_name;
    std::optional<uint32_t> volume;  // percent; none: not set yet
    std::optional<bool> muted;       // likewise
    bool shuffle = false;
    nuv_loop_mode loop_mode = NUV_LOOP_MODE_OFF;

    bool operator==(const PlaybackSettings&) const = default;
};

// How the player stands, for the queries and the checks of later control calls.
struct PlayerView {
    nuv_playback_state state = NUV_PLAYBACK_STATE_STOPPED;   // as the renderer confirmed it
    nuv_playback_state wanted = NUV_PLAYBACK_STATE_STOPPED;  // when all notes are carried out
    bool active = false;
    bool has_next = false;
    bool has_previous = false;
    std::optional<size_t> track;  // the current one of the session
    uint64_t list_revision = 0;   // of the session
    uint64_t stream_id = 0;       // of the stream that is heard; 0: none
    uint64_t text_count = 0;      // of changes of its texts so far
    uint64_t seek_count = 0;      // so far
    uint64_t played_count = 0;    // of tracks that are over

    bool operator==(const PlayerView&) const = default;
};

}  // namespace local_core
