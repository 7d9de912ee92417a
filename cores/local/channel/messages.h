// What is said over a session's channel, docs/session.md: read and written. Pure functions, any
// thread; what is read may be any bytes.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "local/playback/player_view.h"
#include "local/playback/verb.h"
#include "sdk/nuvio_connect.h"

namespace local_core {

inline constexpr char kSubprotocol[] = "nuvio-session.v1";
inline constexpr size_t kMaxMessageBytes = size_t{64} * 1024;
inline constexpr size_t kMaxCommandIdBytes = 64;
inline constexpr size_t kMaxTracksACommand = 500;
inline constexpr size_t kMaxUrlBytes = 2048;
inline constexpr size_t kMaxTextBytes = 1024;

// A track as a server names it. The texts are valid UTF-8; empty where it has said nothing.
struct NamedTrack {
    std::string url;
    std::string title;
    std::string artist;
    std::string album;
    std::string cover;
    uint64_t duration_ms = 0;
};

// Checked: what its verb needs is there and in its range.
struct RemoteCommand {
    std::string id;
    Verb verb = Verb::resume;
    uint64_t number = 0;  // position_ms, volume, item, first
    bool flag = false;    // muted, shuffle
    nuv_loop_mode loop_mode = NUV_LOOP_MODE_OFF;
    std::vector<NamedTrack> tracks;
    std::optional<uint64_t> start;   // one of `tracks`
    std::vector<uint64_t> items;     // none twice
    std::optional<uint64_t> before;  // item; none: at the end
};

// Why a command is not carried out: a member `error` of an answer.
struct Refusal {
    std::string error;
    std::string reason;
    std::string id = {};  // of the command; empty where it has none that can be used
};

std::variant<RemoteCommand, Refusal> read_command(std::string_view text);

// What the device says. Bytes that are no UTF-8 go out as U+FFFD.
struct HelloMessage {
    std::string session;
    std::string uuid;
    std::string name;
    std::string manufacturer;
    std::string model;
    std::string device_type;  // as the SDK names them
    std::string quality;
    std::string sdk_version;
    size_t commands_per_second = 0;
    size_t command_burst = 0;
    size_t queue_tracks = 0;
};

struct TrackMessage {
    uint64_t item = 0;
    std::string title;
    std::string artist;
    std::string album;
    std::string cover;
    uint64_t duration_ms = 0;
    bool seekable = false;
    nuv_audio_format format{};
    std::string converted;  // from what to what; empty: it is heard as it was decoded
};

std::string write_hello(const HelloMessage& hello);
std::string write_track(const TrackMessage* track);  // null: nothing is heard
// A track that is over; `verified`: whether the output took its samples.
std::string write_played(uint64_t item, const std::string& verified);
// `taken_ms`: when the position was that, since 1970.
std::string write_state(const PlayerView& view, const PlaybackSettings& settings,
                        uint64_t position_ms, uint64_t taken_ms);
std::string write_done(const std::string& id);
std::string write_refused(const Refusal& refusal);  // without an id: an error message
std::string write_error(const std::string& error, std::optional<uint64_t> item,
                        const std::string& reason);
std::string write_goodbye(const std::string& reason);

// The list of tracks, item by item until it is full.
class QueueMessage {
  public:
    QueueMessage(uint64_t revision, size_t length, size_t first);
    // False when the message takes no more.
    bool add(uint64_t item, const NamedTrack& track);
    std::string text() const;

  private:
    std::string m_text;
    bool m_empty = true;
};

}  // namespace local_core
