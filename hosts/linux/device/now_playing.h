// NowPlaying: what the device shows about its playback - the model behind the desktop's player
// controls.
//
// Any thread. The observer is told what has changed (device/changes.h), with the model's lock held;
// it must not call the model.
#pragma once

#include <array>
#include <chrono>
#include <cstdint>
#include <functional>
#include <mutex>
#include <optional>
#include <string>

#include "device/changes.h"
#include "platform/AMessage.h"
#include "platform/SourceSwitch.h"

namespace nuvio::host {

// What a state is called: to people and on the bus, and as a key for machines.
struct PlayStateWord {
    const char* text;
    const char* key;
};
inline constexpr std::array<PlayStateWord, 3> kPlayStateWords = {{
    {"Playing", "playing"},
    {"Stopped", "stopped"},
    {"Paused", "paused"},
}};
// One that the platform's enumeration lacks is shown as stopped.
constexpr const PlayStateWord& word_of(android::EPlayState state) {
    const auto index = static_cast<size_t>(state);
    return kPlayStateWords[index < kPlayStateWords.size() ? index
                                                          : size_t{android::PLAY_STATE_STOPPED}];
}

enum class LoopMode { none, track, playlist };

struct ShownTrack {
    uint32_t number = 0;  // of the track since start; another track, another number
    std::string title;
    std::string artist;
    std::string album;
    std::string art_url;  // empty: none
    int64_t length_ms = 0;
    bool operator==(const ShownTrack&) const = default;
};

struct Modes {
    bool shuffle = false;
    LoopMode loop = LoopMode::none;
    bool operator==(const Modes&) const = default;
};

// What can be asked for at the moment.
struct Actions {
    bool control = false;  // play, pause, stop: someone takes commands
    bool next = false;
    bool previous = false;
    bool seek = false;
    bool operator==(const Actions&) const = default;
};

struct NowPlayingView {
    android::EPlayState status = android::PLAY_STATE_STOPPED;
    std::optional<ShownTrack> track;
    Modes modes;
    Actions actions;
    int64_t position_ms = 0;
    // From the first sound that is more than stopped with the output in hand until the music is
    // over (stopped, and cleared) or the output is another's.
    bool has_session = false;

    bool is_stopped() const { return status == android::PLAY_STATE_STOPPED; }
    bool is_playing() const { return status == android::PLAY_STATE_PLAYING; }
    // 0: not known.
    int64_t length_ms() const { return track ? track->length_ms : 0; }
};

class NowPlaying {
  public:
    using Clock = std::chrono::steady_clock;
    using Observer = std::function<void(uint32_t changes)>;

    // Before any other call.
    void set_observer(Observer observer) { m_observer = std::move(observer); }

    void set_status(android::EPlayState status, Clock::time_point now = Clock::now());

    // The service reports about once a second; between reports the position runs on by itself.
    void set_position(int64_t position_ms, Clock::time_point now = Clock::now());
    // A seek has been asked for. The service reports no position while paused, so there the one
    // asked for is shown until playback goes on.
    void preview_seek(int64_t position_ms);
    void set_has_source(bool has_source);
    // The service owns the device's output, or no longer.
    void set_has_output(bool has_output);

    // The track and the modes in the message of the user-interface manager; absent entries are
    // empty, "codec" and the other technical ones are not shown.
    void show(const android::AMessage& info);
    // Nothing plays any more: no track, modes off, position 0.
    void clear();

    NowPlayingView view(Clock::time_point now = Clock::now()) const;

  private:
    int64_t position_at(Clock::time_point now) const;
    uint32_t look_for_session();
    void changed(uint32_t changes) const;

    Observer m_observer;
    mutable std::mutex m_mutex;
    // All guarded by m_mutex.
    NowPlayingView m_view;  // its position_ms as of m_reported, its actions for a source
    Clock::time_point m_reported;
    bool m_has_output = false;
    uint32_t m_tracks_shown = 0;
};

}  // namespace nuvio::host
