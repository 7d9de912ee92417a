// What a device says of itself over its session's channel (docs/session.md), kept up to date
// message by message. The messages come from the network: what is missing or of another kind is
// passed over, texts are cut to 300 bytes, a queue of more than 20,000 tracks or 8 MiB is cut off.
//
// Threads  plain data; its owner sees to locking.
#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <utility>

#include "common/json/json.h"
#include "controller/session/condition.h"

namespace nuvio::controller {

// A track as devices are told of it, and tell of it.
struct ToldTrack {
    std::string url;  // of what this controller serves what is behind its address, "content/7.flac"
    std::string title, artist, album;
    std::string cover;  // "cover/ID" for one that the controller shows itself; else empty
    int64_t duration_ms = 0;
};

struct QueueItem : ToldTrack {
    int64_t item = 0;
};

struct TrackHeard {
    std::optional<int64_t> item;  // none: nothing is heard
    std::string title, artist, album;
    int64_t duration_ms = 0, rate_hz = 0, channels = 0, bits = 0;
    std::string changed;  // what was done to its samples; empty: nothing that the device tells
    bool is_seekable = false;
};

// A track of the session that is over, as the device says.
struct TrackPlayed {
    std::string title;
    std::string
        verified;  // "verified": its samples were those of the sum in its file; else why not
};

class DeviceState {
  public:
    using Clock = std::chrono::steady_clock;

    DeviceState() = default;
    // `here`: how the device reaches this controller, "http://192.168.1.5:8090". Covers from
    // elsewhere are not shown.
    explicit DeviceState(std::string here) : m_here(std::move(here)) {}

    // A message of the types queue, track, played, state or error; `now` is when it came, by two
    // clocks. True when something in it was understood.
    bool apply(const cJSON* message, Clock::time_point now, int64_t now_unix_ms);

    // Heard now: a position advances while it plays and gets on.
    int64_t position_ms(Clock::time_point now) const;
    int64_t revision() const { return m_revision; }        // of the queue
    int64_t state_count() const { return m_state_count; }  // messages of that type
    Playback playback() const { return m_playback; }
    bool is_playing() const { return m_playback == Playback::playing; }
    bool is_track_heard() const { return m_track.item.has_value(); }
    // Its position does, while it plays, from one message to a later one.
    bool advances() const { return m_advances; }
    // It was heard until `at`, and no longer: its position stays where it was then.
    void freeze(Clock::time_point at);
    Clock::time_point told_at() const { return m_position_at; }  // its position
    // The track that is heard is one of the queue, so not of one before it.
    bool is_heard_of_queue() const { return m_track.item && find(*m_track.item) != nullptr; }
    // What the newest error says, with the track that it concerns; empty: there was none.
    const std::string& problem() const { return m_problem; }
    // Of the current track; empty: there is none.
    std::string current_title() const;
    // The queue's first place that no message has told of yet; none when all is there.
    std::optional<int64_t> missing_place() const;
    const QueueItem* find(int64_t item) const;
    // By place; all of it where `has_queue`.
    const std::map<int64_t, QueueItem>& queue() const { return m_queue; }
    int64_t queue_length() const { return m_length; }
    std::optional<int64_t> item() const { return m_item; }  // the current track
    // Of the current track in the queue; none: there is none, or it is not known yet.
    std::optional<int64_t> current_place() const;
    // The item behind the current one in the queue; none: there is none.
    std::optional<int64_t> item_after_current() const;
    bool has_queue() const { return m_length > 0 && !missing_place(); }
    std::optional<int64_t> first_item() const;
    const TrackHeard& track() const { return m_track; }
    bool is_shuffled() const { return m_is_shuffled; }
    const std::string& loop() const { return m_loop; }  // "off", "one", "all"

    // For the page and the command line: members "playback", "position_ms", "volume", "track" ...
    void describe(cJSON* object, Clock::time_point now) const;
    // The queue in its order, with its revision.
    JsonPtr describe_queue() const;

  private:
    bool apply_state(const cJSON* message, Clock::time_point now, int64_t now_unix_ms);
    void watch_position(int64_t position_ms, int64_t seeks, Clock::time_point now);
    bool apply_track(const cJSON* message, Clock::time_point now);
    bool apply_played(const cJSON* message);
    bool apply_queue(const cJSON* message);
    bool apply_error(const cJSON* message);

    std::string m_here;
    Playback m_playback = Playback::stopped;
    std::string m_loop = "off";
    int64_t m_state_count = 0;
    bool m_is_active = false, m_is_muted = false, m_is_shuffled = false;
    bool m_has_next = false, m_has_previous = false;
    std::optional<int64_t> m_item, m_volume;
    int64_t m_position_ms = 0;
    Clock::time_point m_position_at;
    bool m_advances = true;
    bool m_is_frozen = false;
    int64_t m_seeks = 0;              // on the device, so far
    Clock::time_point m_advanced_at;  // the first message with this position
    // How far behind the device's clock and the network are, at least, in ms.
    std::optional<int64_t> m_least_lag_ms;

    TrackHeard m_track;
    std::optional<TrackPlayed> m_played;  // the last one
    int64_t m_revision = 0;
    int64_t m_length = 0;
    size_t m_queue_bytes = 0;
    std::map<int64_t, QueueItem> m_queue;  // by place

    std::string m_problem;
};

}  // namespace nuvio::controller
