// The device's renderer as far as a core sees it: streams, playback, and a card of half a second
// without sound. It records every delegate that comes, and as a breach every one that comes where a
// renderer could not take it. The loop thread's.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <initializer_list>
#include <iterator>
#include <map>
#include <random>
#include <vector>

#include "conformance/core_loop.h"

namespace nuvio::kit {

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

class Renderer {
  public:
    using State = nuv_playback_state;
    static constexpr unsigned kTailMs = 500;  // from a track's last sample to its end

    Renderer(Loop& loop, Record& record, Breaches& breaches)
        : m_loop(loop), m_record(record), m_breaches(breaches) {}

    // Adds its delegates, and its timers to the loop.
    void install(nuv_connect_config& config);
    // Before the loop is drained; its timers must outlive that.
    void close_timers();
    Loop& loop() { return m_loop; }

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
    bool next_available() const { return m_next_available; }
    // The shortest time before a track's end at which the next one was there; 0 for none.
    unsigned earliest_next_ms() const { return m_earliest_next_ms; }

  private:
    enum class Phase { stopped, playing, playing_seeking, paused, paused_seeking };

    void note(const char* what, uint64_t id = 0, uint64_t value = 0);
    void expect(const char* what, std::initializer_list<Phase> allowed);
    Track* track(uint64_t id, const char* what);
    uint64_t active() const { return m_tracks.empty() ? 0 : m_tracks.begin()->first; }
    uint64_t next() const { return m_tracks.size() < 2 ? 0 : std::next(m_tracks.begin())->first; }

    // The delegates.
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

    void open(uint64_t id);
    void room();
    void arm_end();
    void hand_over();
    void end_of_track();
    void close();
    void tell_initiated(uint64_t id);
    void tell(const std::function<nuv_error(nuv_connect*)>& notification, const char* what);

    Loop& m_loop;
    Record& m_record;
    Breaches& m_breaches;
    uv_timer_t m_room{}, m_end{};

    Phase m_phase = Phase::stopped;
    std::map<uint64_t, Track> m_tracks;  // by id: active, next, further
    uint64_t m_playing = 0;              // id; 0 for none
    bool m_end_armed = false;
    uint64_t m_next_seen_ms = 0;  // loop time at which a next track was there; 0 for none
    uint64_t m_end_due_ms = 0;
    unsigned m_earliest_next_ms = 0;
    bool m_next_available = false;
    uint64_t m_allowance = UINT64_MAX;
    uint64_t m_taken = 0;
    bool m_at_random = false;
    bool m_fails = false;
    std::minstd_rand m_random;
    bool m_resumes = true;
};

}  // namespace nuvio::kit
