// The SDK's side of a session with a real renderer: starts streams, delivers them on passes of the
// loop, pauses, seeks and disposes of them as the SDK does, and says when the session reaches a
// point of interest. Each frame carries its stream and its number, so that a recording tells what
// was heard.
#pragma once

#include <uv.h>

#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "media/audio_renderer.h"

inline constexpr nuv_audio_format kCd{44100, 2, NUV_AUDIO_SAMPLE_FORMAT_16_BIT};
inline constexpr nuv_audio_format kHiRes{96000, 2, NUV_AUDIO_SAMPLE_FORMAT_24_BIT};

struct Clip {
    nuv_audio_format format;
    uint64_t ms;
    bool is_silent = false;  // and of any length: its frames are not numbered, nor held

    uint64_t frames() const { return format.sample_rate * ms / 1000; }
};

// Where a session is. The first three are reached on the SDK's own pass, where its delegate may be
// called; the others from inside a call of the renderer.
enum class Point {
    opening,          // all streams started, before playback is initiated
    waiting,          // the first stream found no more room, with a part of it left to deliver: the
                      // first time, or each time of a silent one
    delivered,        // the last stream has been taken whole
    handing_over,     // the second stream's delivery was opened while the first still plays
    changing_format,  // the first stream was heard to its end, and another one follows
    draining,         // the last stream was heard to its end
};

// One at a time. The loop thread only.
class ScriptedSdk {
  public:
    ScriptedSdk(uv_loop_t* loop, audio_renderer* renderer);
    ~ScriptedSdk();
    ScriptedSdk(const ScriptedSdk&) = delete;
    ScriptedSdk& operator=(const ScriptedSdk&) = delete;

    // Before play.
    void at(std::function<void(Point)> observer) { m_observer = std::move(observer); }
    void play(const std::vector<Clip>& tracks);
    // Pauses now and resumes some time later.
    void pause_for(unsigned ms);
    // Announces a seek now and moves the first stream forward a few passes later.
    void seek_ahead(unsigned ms);

    // Every stream has been disposed of.
    bool is_over() const { return m_streams.empty(); }
    unsigned errors() const { return m_errors; }           // playback errors reported
    bool ended() const { return m_ended; }                 // the last track was reported finished
    uint64_t frames_taken() const { return m_taken; }      // of all streams
    uint64_t frames_skipped() const { return m_skipped; }  // by seeks
    bool is_delivering() const { return uv_is_active(reinterpret_cast<uv_handle_t*>(m_idle)) != 0; }

    // The frames as the card records them, checked to be in order: each later than the one before.
    static bool is_in_order(const std::vector<uint8_t>& pcm, size_t frame_size);

  private:
    struct Stream {
        nuv_audio_format format;
        std::vector<uint8_t> pcm;  // empty: silence
        uint64_t size;             // bytes
        uint64_t delivered = 0;
        bool open = false;
    };

    void on_call(const std::string& call);
    void pass();
    void offer(uint64_t id, Stream& stream);
    void complete_seek();
    void reach(Point point);
    void wake_up();
    void after(unsigned ms, void (*step)(ScriptedSdk&));

    static ScriptedSdk* g_current;
    uv_idle_t* m_idle;
    uv_timer_t* m_timer;
    void (*m_next_step)(ScriptedSdk&) = nullptr;
    nuv_connect* m_core;
    nuv_audio_stream_delegate m_stream_delegate;
    nuv_media_delegate m_media;
    std::map<uint64_t, Stream> m_streams;  // by id, in order
    uint64_t m_last_id = 0;
    bool m_is_seeking = false;  // nothing is delivered
    unsigned m_seek_ms = 0;
    std::function<void(Point)> m_observer;
    bool m_waited = false;
    unsigned m_disposals_due = 0;
    unsigned m_errors = 0;
    bool m_ended = false;
    uint64_t m_taken = 0;
    uint64_t m_skipped = 0;
};
