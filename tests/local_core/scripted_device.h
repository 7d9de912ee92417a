// A device around the real core: a renderer without sound, on a loop of its own.
//
// It behaves as the renderer does towards the SDK (delivery paused for each new source, the end of
// the track some time after the last sample, the next stream of the same format opened shortly
// before) and fails the test when a delegate comes where the renderer could not take it: in a state
// that does not allow it, for a stream that does not exist, from inside a call or on another
// thread.
#pragma once

#include <uv.h>

#include <cstddef>
#include <deque>
#include <functional>
#include <initializer_list>
#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "sdk/nuvio_connect.h"

class ScriptedDevice {
  public:
    struct Source {
        uint64_t id;
        nuv_audio_stream_info info;
        std::vector<std::byte> pcm;  // taken since the start or the last seek
        bool open = false;
        bool finished = false;
    };

    ScriptedDevice();
    ~ScriptedDevice();
    ScriptedDevice(const ScriptedDevice&) = delete;
    ScriptedDevice& operator=(const ScriptedDevice&) = delete;

    nuv_connect* core() const { return m_core; }
    uv_loop_t* loop() { return &m_loop; }
    void free_core();

    // Every delegate call as a line, e.g. "started 1 44100 Hz 2 ch 16 bit 100 ms", "initiate
    // PLAYING". Offers of data are not among them.
    std::vector<std::string> lines;
    // The core's own log lines since the device was made.
    static std::string log();
    std::vector<std::string> take_lines() { return std::exchange(lines, {}); }
    bool has_line(const std::string& line) const;

    // All that has been taken, end to end, over track changes and seeks.
    std::vector<std::byte> heard;
    // Taken of the streams disposed of and alive, by id.
    std::vector<std::vector<std::byte>> pcm_of_stream;

    // How much of an offer is taken; by default all. A short count is followed by a resume later.
    std::function<size_t(size_t offered)> take;
    // From the last sample of a track to its end, and from there back to the hand-over.
    uint64_t tail_ms = 4;
    uint64_t lead_ms = 2;
    bool refuses_output = false;  // initiate ends in an error and a disconnect
    uint64_t position_ms = 0;     // the answer to a position query

    // Runs the loop until the condition holds; fails the test when it does not within ten seconds.
    void run_until(const std::function<bool()>& condition);
    void run_until_line(const std::string& line);
    void run_for_ms(uint64_t ms);

    // Connects to an endpoint, as its own session, with no expiry.
    nuv_error play(const std::string& endpoint, bool become_active = true);
    nuv_playback_state state() const;
    Source* source(uint64_t id);
    Source* active() const;
    Source* next() const;
    uint64_t playing_id() const { return m_playing != nullptr ? m_playing->id : 0; }
    void fail_playback();

  private:
    enum class State { stopped, playing, playing_seeking, paused, paused_seeking };

    static nuv_connect_config config(ScriptedDevice* owner);
    template <typename Handle>
    void close(Handle* handle);
    void expect_state(const char* what, std::initializer_list<State> allowed);
    void enter();
    void line(const char* format, ...) __attribute__((format(printf, 2, 3)));
    void open(Source* source);
    size_t on_data(uint64_t id, const void* data, size_t size);
    void on_finished(uint64_t id);
    void on_dispose(uint64_t id);
    void on_initiate(nuv_playback_state initial);
    void on_seek();
    void hand_over();
    void end_of_track();
    void do_stop();
    void arm_end();
    Source* expect_source(uint64_t id);

    uv_loop_t m_loop{};
    uv_timer_t m_resume_timer{};
    uv_timer_t m_lead_timer{};
    uv_timer_t m_end_timer{};
    uv_timer_t m_guard_timer{};
    bool m_guard_fired = false;
    std::thread::id m_loop_thread;
    nuv_connect* m_core = nullptr;

    State m_state = State::stopped;
    std::deque<std::unique_ptr<Source>> m_sources;  // active, next, further
    Source* m_playing = nullptr;
    bool m_started_advertising = false;
    bool m_end_armed = false;

  public:
    // Set around calls into the core, to see that no delegate comes from inside one.
    int calls_under_way = 0;
};

// A call into the core from the loop's thread, during which no delegate may come.
template <typename Call>
nuv_error guarded(ScriptedDevice& device, Call call) {
    ++device.calls_under_way;
    const nuv_error error = call(device.core());
    --device.calls_under_way;
    return error;
}
