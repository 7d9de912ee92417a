// A device around the core under test: what the renderer is to it, without sound, on a loop of its
// own. It notes every delegate that comes as an event, and every one that comes where the renderer
// could not take it as a breach of a rule.
//
// The thread that makes it is the loop's; everything below is that thread's unless it says more.
#pragma once

#include <sdk/nuvio_connect.h>
#include <uv.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <future>
#include <initializer_list>
#include <map>
#include <mutex>
#include <random>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "common/unique_fd.h"

namespace nuvio::kit {

// A rule that does not hold; what() says what was seen.
class Broken : public std::runtime_error {
    using std::runtime_error::runtime_error;
};
// It did not come to it.
class NotSeen : public std::runtime_error {
    using std::runtime_error::runtime_error;
};

// What was seen of the rules that hold throughout, over all devices. Any thread.
class Breaches {
  public:
    void add(const std::string& rule, const std::string& seen);
    // "" for none; else the first one, and how many there were.
    std::string of(const std::string& rule) const;

  private:
    struct Entry {
        std::string first;
        int count = 0;
    };
    mutable std::mutex m_mutex;
    std::map<std::string, Entry> m_entries;  // guarded by m_mutex
};

struct Event {
    std::string what;    // e.g. "started", "pause"
    uint64_t id = 0;     // of the stream it is about
    uint64_t value = 0;  // position, state, volume, ...
};

struct Track {
    nuv_audio_stream_info info{};
    uint64_t start_ms = 0;
    uint64_t taken = 0;    // bytes since the start or the last seek
    bool open = false;     // we ask for its data
    bool refused = false;  // a short count was given, delivery not resumed since
    bool finished = false;
    std::vector<std::byte> rest;  // of the last offer, what was not taken
    size_t frame_bytes() const {
        return nuv_audio_sample_format_size(info.format.sample_format) * info.format.channel_count;
    }
};

class Device {
  public:
    using State = nuv_playback_state;
    static constexpr unsigned kTailMs = 500;  // from a track's last sample to its end

    // Makes the core; throws Broken when there is none to be had.
    Device(Breaches& breaches, std::chrono::seconds patience);
    // Frees the core and drains the loop.
    ~Device();
    Device(const Device&) = delete;
    Device& operator=(const Device&) = delete;

    nuv_connect* core() const { return m_core; }

    // ---- Time: the loop runs only in these.

    // Until the condition holds; throws Broken, "no <what> within 10 s", when it does not.
    void run_until(const std::string& what, const std::function<bool()>& condition);
    void run_for(std::chrono::milliseconds time);

    // ---- Calls

    // On the loop's thread; no delegate may come from inside.
    template <typename Call>
    auto call(const Call& call) {
        ++m_inside;
        const auto result = call(m_core);
        --m_inside;
        return result;
    }
    // On another thread, as the service's command thread does it, while the loop runs.
    nuv_error command(const std::function<nuv_error(nuv_connect*)>& call);
    std::chrono::microseconds longest_command() const { return m_longest_command; }

    // ---- Events

    size_t mark() const { return m_events.size(); }
    const std::vector<Event>& events() const { return m_events; }
    // The first event of this name since the mark; null for none.
    const Event* find(const std::string& what, size_t since) const;
    size_t count(const std::string& what, size_t since) const;
    // Waits for it.
    Event await(const std::string& what, size_t since);
    // Waits until the core says that it is in this state, and asks it too.
    void await_state(State state, size_t since);

    // ---- The renderer

    // Frames still to be taken; more are refused. No number: all.
    void take_only(uint64_t frames) { m_allowance = frames; }
    void take_all() { m_allowance = UINT64_MAX; }
    // From now on some of each offer.
    void take_at_random() { m_at_random = true; }
    // Opens delivery after a short count, as room in the card does, at once from now on or on call.
    void resume_by_itself(bool yes) { m_resumes = yes; }
    void resume_delivery();
    // The card fails, at once or in the next offer: playback ends with an error.
    void fail();
    void fail_in_an_offer() { m_fails = true; }

    const std::map<uint64_t, Track>& tracks() const { return m_tracks; }
    uint64_t taken() const { return m_taken; }  // bytes, of all streams
    // Waits for every stream's disposal.
    void await_disposals();
    bool next_available() const { return m_next_available; }
    // The shortest time before a track's end at which the next one was there; 0 for none.
    unsigned earliest_next_ms() const { return m_earliest_next_ms; }

  private:
    enum class Phase { stopped, playing, playing_seeking, paused, paused_seeking };
    template <auto kMethod>
    struct Delegate;

    nuv_connect_config config();
    bool enter(const char* what);
    void note(const char* what, uint64_t id = 0, uint64_t value = 0);
    void expect(const char* what, std::initializer_list<Phase> allowed);
    Track* track(uint64_t id, const char* what);
    uint64_t active() const { return m_tracks.empty() ? 0 : m_tracks.begin()->first; }
    uint64_t next() const { return m_tracks.size() < 2 ? 0 : std::next(m_tracks.begin())->first; }

    // The delegates.
    void on_server_start();
    void on_server_stop();
    void on_advertise(const char* name, const char* service);
    void on_stop_advertising();
    void on_started(uint64_t id, nuv_audio_stream_info info, uint64_t position_ms);
    size_t on_data(uint64_t id, const void* data, size_t size);
    void on_metadata(uint64_t id, const nuv_stream_metadata* metadata);
    void on_finished(uint64_t id);
    void on_seeked(uint64_t id, uint64_t position_ms);
    void on_dispose(uint64_t id);
    void on_initiate(State initial);
    void on_pause();
    void on_resume();
    void on_stop();
    void on_seek_in_progress();
    uint64_t on_position();
    void on_volume(uint32_t volume);
    void on_mute(bool muted);
    void on_state(State state);
    void on_quality(nuv_audio_quality quality);
    void on_controls(nuv_loop_mode mode, bool shuffle);
    void on_actions(bool next);
    void on_active(bool active);

    void open(uint64_t id);
    void room();
    void arm_end();
    void hand_over();
    void end_of_track();
    void close();
    void tell_initiated(uint64_t id);
    void tell(const std::function<nuv_error(nuv_connect*)>& notification, const char* what);

    Breaches& m_breaches;
    const std::chrono::seconds m_patience;
    const std::thread::id m_loop_thread = std::this_thread::get_id();
    uv_loop_t m_loop{};
    uv_timer_t m_tick{}, m_room{}, m_end{};
    uv_async_t m_wake{};
    nuv_connect* m_core = nullptr;
    bool m_freed = false;
    int m_inside = 0;
    std::chrono::microseconds m_longest_command{0};

    std::vector<Event> m_events;
    Phase m_phase = Phase::stopped;
    std::map<uint64_t, Track> m_tracks;  // by id: active, next, further
    uint64_t m_playing = 0;              // id; 0 for none
    bool m_end_armed = false;
    uint64_t m_next_seen_ms = 0;  // loop time at which a next track was there; 0 for none
    uint64_t m_end_due_ms = 0;
    unsigned m_earliest_next_ms = 0;
    bool m_serving = false;
    UniqueFd m_server;  // listens while it is so
    bool m_advertising = false;
    bool m_next_available = false;
    uint64_t m_allowance = UINT64_MAX;
    uint64_t m_taken = 0;
    bool m_at_random = false;
    bool m_fails = false;
    std::minstd_rand m_random;
    bool m_resumes = true;
};

}  // namespace nuvio::kit
