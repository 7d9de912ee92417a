// What the control and query calls see and ask for, from any thread.
//
// A control call is checked against what the controller was told last, noted and answered at once;
// the loop's thread takes the notes on a later pass and carries them out in order. Every call may
// come from any thread unless it says otherwise; none waits for the loop or for decoding.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "local/playback/player_view.h"
#include "local/playback/session.h"
#include "local/playback/verb.h"
#include "local/track/track_texts.h"
#include "sdk/nuvio_connect.h"

namespace local_core {

// The server from which a session is controlled, as the controller named it.
struct RemoteOffer {
    std::string endpoint;
    std::string token;
    uint64_t expiry_s = 0;  // since 1970; 0: none
};

struct Command {
    Verb verb = Verb::stop;
    uint64_t position_ms = 0;          // seek
    std::unique_ptr<Session> session;  // connect
    bool become_active = false;        // connect
    RemoteOffer remote;                // connect
    std::unique_ptr<QueueEdit> edit;   // a change of the list, else null
    // As they were when it was given: a "next" before a "shuffle" is the next in the old order.
    nuv_loop_mode loop_mode = NUV_LOOP_MODE_OFF;
    bool shuffle = false;
};

// Of a setting that the device hands back once it has taken the output, as it knew it then: where a
// controller had changed it shortly before, that is an echo, and nobody's wish. The device knows
// what it has asked for; what its mixer makes of a value it sets itself.
template <typename Value>
class EchoFilter {
  public:
    using Clock = std::chrono::steady_clock;

    // The device has asked for the value.
    void device_asked(Value current) { m_known = current; }
    // Before it takes the output.
    void output_is_taken(std::optional<Value> current) {
        m_stale = m_known != current ? m_known : std::nullopt;
        m_taken_at = Clock::now();
    }
    // What the device sets now.
    bool is_echo(Value set) {
        const bool is_echo = m_stale == set && Clock::now() - m_taken_at < kPatience;
        if (is_echo) {
            m_stale.reset();
        }
        return is_echo;
    }

  private:
    // A device's commands wait for each other.
    static constexpr std::chrono::seconds kPatience{3};

    std::optional<Value> m_known;  // by the device
    std::optional<Value> m_stale;  // what it may hand back
    Clock::time_point m_taken_at;
};

class Control {
  public:
    // `wake` gets the loop's thread to take the notes; it must be callable from any thread.
    Control(std::string device_name, std::function<void()> wake);

    // From deactivate to seek.
    nuv_error command(Verb verb, uint64_t position_ms = 0);
    void connect(std::unique_ptr<Session> session, bool become_active, RemoteOffer remote);
    // NUV_ERROR_OK: noted; what comes of it is known when it is carried out.
    nuv_error edit(QueueEdit edit);

    // How often a stop was noted so far.
    uint64_t stop_count() const;

    // Arguments must have been checked.
    void set_device_name(const char* name);
    void set_volume(uint32_t percent);
    void set_muted(bool muted);
    // What the device sets itself, and what it asks for: an echo of its own changes nothing.
    void set_device_volume(uint32_t percent);
    void set_device_muted(bool muted);
    uint32_t tell_device_volume();
    bool tell_device_muted();
    // The device is about to be told to begin or to go on. Loop thread.
    void output_is_taken();
    void set_shuffle(bool shuffle);
    void set_loop_mode(nuv_loop_mode loop_mode);

    PlaybackSettings settings() const;
    PlayerView view() const;
    bool connected() const;

    // The texts stay the caller's, who removes them before they go. Loop thread.
    void add_texts(uint64_t stream_id, const TrackTexts* texts);
    void remove_texts(uint64_t stream_id);
    nuv_error get_texts(uint64_t stream_id, nuv_stream_metadata* metadata) const;

    // True, once, when a note or a setting came since the last call. Loop thread.
    bool take_attention() { return m_attention.exchange(false, std::memory_order_acquire); }
    std::vector<Command> take_commands();
    void publish(const PlayerView& view);

  private:
    // Enough for any person or script, little enough for memory.
    static constexpr size_t kMaxCommands = 1024;

    nuv_error check(Verb verb) const;
    nuv_error check_and_note(Command command);
    void note(Command command);
    template <typename Change>
    void change_settings(Change change);
    template <typename Value>
    void set_by_device(Value value, EchoFilter<Value>& echo,
                       std::optional<Value> PlaybackSettings::*setting);
    template <typename Value>
    Value tell_device(Value assumed, EchoFilter<Value>& echo,
                      std::optional<Value> PlaybackSettings::*setting);
    void call_attention();

    const std::function<void()> m_wake;
    std::atomic<bool> m_attention{false};

    // Guards everything below; held for a few copies only, never while anything is called.
    mutable std::mutex m_mutex;
    std::vector<Command> m_commands;
    PlaybackSettings m_settings;
    PlayerView m_view;
    bool m_connected = false;
    uint64_t m_stop_count = 0;
    std::vector<std::pair<uint64_t, const TrackTexts*>> m_texts;
    EchoFilter<uint32_t> m_volume_echo;
    EchoFilter<bool> m_muted_echo;
};

}  // namespace local_core
