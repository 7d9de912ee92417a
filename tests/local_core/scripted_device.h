// A device around the real core: a renderer without sound, on a loop of its own.
//
// It behaves as the renderer does towards the SDK (delivery paused for each new source, the end of
// the track some time after the last sample, the next stream of the same format opened shortly
// before) and fails the test when a delegate comes where the renderer could not take it: in a state
// that does not allow it, for a stream that does not exist, from inside a call or on another
// thread.
#pragma once

#include <gtest/gtest.h>
#include <uv.h>

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <cstring>
#include <functional>
#include <initializer_list>
#include <map>
#include <sstream>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

#include "sdk/nuvio_connect.h"

class ScriptedDevice {
  public:
    struct Source {
        uint64_t id;
        nuv_audio_format format;
        bool open = false;  // asked for data
        bool finished = false;

        bool has_format_of(const Source& other) const {
            return std::memcmp(&format, &other.format, sizeof format) == 0;
        }
    };

    ScriptedDevice() {
        setenv("NUVIO_MUSIC_FOLDERS", "/", 1);
        uv_loop_init(&m_loop);
        for (uv_timer_t* timer : {&m_resume_timer, &m_end_timer, &m_tick_timer}) {
            uv_timer_init(&m_loop, timer);
            timer->data = this;
        }
        nuv_error error = NUV_ERROR_INTERNAL;
        guarded([&](nuv_connect*) {
            m_core = nuv_connect_create(&m_loop, config(), &error);
            return error;
        });
        EXPECT_EQ(error, NUV_ERROR_OK);
        nuv_connect_set_log_delegate(m_core,
                                     {nullptr, [](uint32_t, const char*, const char* message) {
                                          const std::string_view text(message);
                                          s_joined += text.starts_with("Joining session");
                                          s_not_joined += text.starts_with("Not joining session");
                                      }});
    }

    ~ScriptedDevice() {
        ++m_calls_under_way;  // and for ever
        nuv_connect_free(m_core);
        for (uv_timer_t* timer : {&m_resume_timer, &m_end_timer, &m_tick_timer}) {
            uv_close(reinterpret_cast<uv_handle_t*>(timer), nullptr);
        }
        uv_run(&m_loop, UV_RUN_DEFAULT);
        EXPECT_EQ(uv_loop_close(&m_loop), 0) << "the core left a handle behind";
    }

    ScriptedDevice& operator=(ScriptedDevice&&) = delete;

    nuv_connect* core() const { return m_core; }
    uv_loop_t* loop() { return &m_loop; }

    // Every delegate call as a line, e.g. "started 1 44100 Hz 2 ch 16 bit 100 ms", "initiate
    // PLAYING". Offers of data are not among them.
    std::vector<std::string> lines;
    std::vector<std::string> take_lines() { return std::exchange(lines, {}); }

    // All that has been taken, end to end, over track changes and seeks.
    std::vector<std::byte> heard;
    // Taken of each stream since its start or last seek, by id.
    std::vector<std::vector<std::byte>> pcm_of_stream;

    // How much of an offer is taken; by default all. A short count is followed by a resume later.
    std::function<size_t(size_t offered)> take;
    uint64_t tail_ms = 4;      // from the last sample of a track to its end
    bool hands_over = true;    // the next stream of the same format flows behind that tail
    uint64_t position_ms = 0;  // the answer to a position query

    bool has_line(const std::string& line) const {
        return std::find(lines.begin(), lines.end(), line) != lines.end();
    }

    // Runs the loop until the condition holds; fails the test when it does not within ten seconds.
    void run_until(const std::function<bool()>& condition) {
        run(condition, 10'000, 10'000);
        ASSERT_TRUE(condition()) << testing::PrintToString(lines);
    }

    void run_until_line(const std::string& line) {
        SCOPED_TRACE(line);
        run_until([&] { return has_line(line); });
    }

    void run_for_ms(uint64_t ms) {
        run([] { return false; }, ms, 1);
    }

    // Connects to an endpoint, as "session", with no expiry, and waits until it is joined or, with
    // NUV_ERROR_EMPTY_SESSION, found to have nothing to play.
    nuv_error play(const std::string& endpoint, bool become_active = true) {
        const int joined = s_joined;
        const int not_joined = s_not_joined;
        const nuv_error error = guarded([&](nuv_connect* core) {
            return nuv_connect_connect(core, "session", endpoint.c_str(), "", 0, "", "", 0,
                                       become_active);
        });
        if (error == NUV_ERROR_OK) {
            run_until([&] { return s_joined != joined || s_not_joined != not_joined; });
        }
        return s_not_joined != not_joined ? NUV_ERROR_EMPTY_SESSION : error;
    }

    void fail_playback() {
        close_output();
        tell_core(nuv_connect_notify_playback_error);
    }

    Source* active() { return m_sources.empty() ? nullptr : &m_sources.begin()->second; }
    Source* next() {
        return m_sources.size() < 2 ? nullptr : &std::next(m_sources.begin())->second;
    }
    uint64_t playing_id() const { return m_playing != nullptr ? m_playing->id : 0; }

    // A call into the core from the loop's thread, during which no delegate may come.
    template <typename Call>
    nuv_error guarded(Call call) {
        ++m_calls_under_way;
        const nuv_error error = call(m_core);
        --m_calls_under_way;
        return error;
    }

  private:
    enum class State { stopped, playing, playing_seeking, paused, paused_seeking };

    static ScriptedDevice& entered(void* context) {
        auto* const self = static_cast<ScriptedDevice*>(context);
        EXPECT_EQ(self->m_calls_under_way, 0) << "a delegate came from inside a call or too late";
        EXPECT_EQ(std::this_thread::get_id(), self->m_loop_thread);
        return *self;
    }
    // A method as a delegate.
    template <auto kMethod>
    struct Delegate;
    template <typename Result, typename... Arguments,
              Result (ScriptedDevice::*kMethod)(Arguments...)>
    struct Delegate<kMethod> {
        static Result call(nuv_connect*, Arguments... arguments, void* context) {
            return (entered(context).*kMethod)(arguments...);
        }
    };
    template <typename... Words>
    void line(const Words&... words) {
        std::ostringstream text;
        ((text << words), ...);
        lines.push_back(text.str());
    }

    nuv_connect_config config() {
        using Self = ScriptedDevice;
        nuv_connect_config config{};
        config.interface_version = 1;
        config.device_name = "Kitchen";
        config.manufacturer = "Maker";
        config.model = "Model";
        config.serial_number = config.hardware_id = "0001";
        config.app_id = config.app_secret = "app";
        config.renderer_count = 1;
        config.maximum_audio_quality = NUV_AUDIO_QUALITY_HI_RES_LEVEL_3;
        config.advertising_delegate = {this, Delegate<&Self::advertise>::call,
                                       Delegate<&Self::stop_advertising>::call};
        config.local_config_server_delegate = {
            this, [](nuv_connect*, void* self) { entered(self).line("start server"); },
            [](nuv_connect*, void* self) { entered(self).line("stop server"); }};
        config.audio_stream_delegate = {
            this,
            Delegate<&Self::started>::call,
            Delegate<&Self::data>::call,
            Delegate<&Self::metadata>::call,
            Delegate<&Self::finished>::call,
            Delegate<&Self::seeked>::call,
            Delegate<&Self::dispose>::call,
        };
        config.media_delegate = {
            this,
            Delegate<&Self::initiate>::call,
            Delegate<&Self::pause>::call,
            Delegate<&Self::resume>::call,
            Delegate<&Self::stop>::call,
            Delegate<&Self::seek_in_progress>::call,
            [](nuv_connect*, void* self) { return entered(self).position_ms; },
            [](nuv_connect*, uint32_t, void* self) { entered(self); },
            [](nuv_connect*, bool, void* self) { entered(self); },
            Delegate<&Self::state_changed>::call,
            [](nuv_connect*, nuv_audio_quality, void*) {},
            [](nuv_connect*, nuv_loop_mode mode, bool shuffle, void* self) {
                entered(self).line("controls ", nuv_loop_mode_to_string(mode), " ", shuffle);
            },
            [](nuv_connect*, bool next, void* self) {
                entered(self).line("next available ", next);
            },
        };
        config.renderer_state_delegate = {this, [](nuv_connect*, bool active, void* self) {
                                              entered(self).line("active ", active);
                                          }};
        return config;
    }

    void advertise(const char* name, const char* service) {
        EXPECT_FALSE(std::exchange(m_is_advertising, true));
        line("advertise ", name, " ", service);
    }

    void stop_advertising() {
        EXPECT_TRUE(std::exchange(m_is_advertising, false));
        line("stop advertising");
    }

    // ---- Streams

    void started(uint64_t id, nuv_audio_stream_info info, uint64_t position) {
        const nuv_audio_format& format = info.format;
        line("started ", id, " ", format.sample_rate, " Hz ", format.channel_count, " ch ",
             format.sample_format == NUV_AUDIO_SAMPLE_FORMAT_16_BIT ? 16 : 24, " bit ",
             info.duration_ms, " ms");
        EXPECT_EQ(position, 0U);
        if (m_sources.empty()) {
            expect_state("a first stream", {State::stopped});
        }
        EXPECT_TRUE(m_sources.emplace(id, Source{id, format}).second);
        pcm_of_stream.resize(std::max<size_t>(pcm_of_stream.size(), id + 1));
        hand_over();
    }

    size_t data(uint64_t id, const void* pcm, size_t size) {
        Source& offering = source(id);
        const size_t frame_bytes = nuv_audio_sample_format_size(offering.format.sample_format) *
                                   offering.format.channel_count;
        EXPECT_GT(size, 0U);
        EXPECT_EQ(size % frame_bytes, 0U);
        EXPECT_FALSE(offering.finished);
        if (!offering.open) {
            return 0;
        }
        EXPECT_EQ(&offering, m_playing);
        expect_state("data", {State::playing, State::paused});
        size_t taken = 0;
        if (m_state == State::playing) {
            taken = take ? std::min(take(size) / frame_bytes * frame_bytes, size) : size;
        }
        const auto* const bytes = static_cast<const std::byte*>(pcm);
        heard.insert(heard.end(), bytes, bytes + taken);
        pcm_of_stream[id].insert(pcm_of_stream[id].end(), bytes, bytes + taken);
        if (taken < size) {
            offering.open = false;
            start<&ScriptedDevice::open_playing>(&m_resume_timer, 1);
        }
        return taken;
    }

    void metadata(uint64_t id, const nuv_stream_metadata* texts) {
        source(id);
        line("metadata ", id, " ", texts->title, "|", texts->artist, "|", texts->album, "|",
             texts->album_art_url);
    }

    void finished(uint64_t id) {
        line("finished ", id);
        source(id).finished = true;
        if (&source(id) == active()) {
            expect_state("finished", {State::playing, State::paused});
            arm_end();
        }
    }

    void seeked(uint64_t id, uint64_t reached_ms) {
        expect_state("seeked", {State::playing_seeking, State::paused_seeking});
        line("seeked ", id, " ", reached_ms);
        source(id).finished = false;
        pcm_of_stream[id].clear();
        m_state = m_state == State::playing_seeking ? State::playing : State::paused;
        // The output has been emptied: it has room, also where the timer fired during the seek.
        start<&ScriptedDevice::open_playing>(&m_resume_timer, 1);
    }

    void dispose(uint64_t id) {
        line("dispose ", id);
        if (&source(id) == m_playing) {
            EXPECT_EQ(m_playing, next()) << "the playing stream was disposed of";
            m_playing = active();
        }
        m_sources.erase(id);
    }

    // ---- Playback

    void initiate(nuv_playback_state initial) {
        expect_state("initiate", {State::stopped});
        line("initiate ", nuv_playback_state_to_string(initial));
        ASSERT_NE(active(), nullptr);
        m_playing = active();
        m_state = initial == NUV_PLAYBACK_STATE_PLAYING ? State::playing : State::paused;
        open_playing();
        notify_initiated();
    }

    void pause() {
        line("pause");
        expect_state("pause", {State::playing});
        m_playing->open = false;
        uv_timer_stop(&m_end_timer);
        m_state = State::paused;
        tell_core(nuv_connect_notify_playback_paused);
    }

    void resume() {
        line("resume");
        expect_state("resume", {State::paused});
        m_state = State::playing;
        open_playing();
        if (m_end_armed) {
            arm_end();
        }
        tell_core(nuv_connect_notify_playback_resumed);
    }

    void stop() {
        line("stop");
        EXPECT_NE(m_state, State::stopped);
        close_output();
        tell_core(nuv_connect_notify_playback_stopped);
    }

    void seek_in_progress() {
        line("seek in progress");
        expect_state("seek", {State::playing, State::paused});
        if (m_playing != active()) {
            m_playing->open = false;
            m_playing = active();
        }
        uv_timer_stop(&m_end_timer);
        m_end_armed = false;
        m_state = m_state == State::playing ? State::playing_seeking : State::paused_seeking;
    }

    void state_changed(nuv_playback_state state) {
        nuv_playback_state told{};
        EXPECT_EQ(nuv_connect_get_playback_state(m_core, &told), NUV_ERROR_OK);
        EXPECT_EQ(told, state);
        line("state ", nuv_playback_state_to_string(state));
    }

    // ---- The output

    void open_playing() {
        if (m_state == State::playing && !std::exchange(m_playing->open, true)) {
            tell_core([id = m_playing->id](nuv_connect* core) {
                return nuv_connect_resume_audio_delivery(core, id);
            });
        }
    }

    // Begins, or goes on, once the active track is finished; a pause interrupts it.
    void arm_end() {
        m_end_armed = true;
        if (m_state == State::playing) {
            start<&ScriptedDevice::end_of_track>(&m_end_timer, tail_ms);
            hand_over();
        }
    }

    void hand_over() {
        if (hands_over && m_state == State::playing && m_end_armed && next() != nullptr &&
            m_playing == active() && active()->has_format_of(*next())) {
            m_playing = next();
            open_playing();
        }
    }

    void end_of_track() {
        line("end of track");
        uv_timer_stop(&m_end_timer);
        m_end_armed = false;
        Source* const following = next();
        tell_core([&](nuv_connect* core) {
            return nuv_connect_notify_playback_finished(core, following == nullptr);
        });
        if (following == nullptr) {
            close_output();
            return;
        }
        if (std::exchange(m_playing, following) != following) {
            open_playing();
        }
        notify_initiated();
        if (following->finished) {
            m_end_armed = true;
            start<&ScriptedDevice::end_of_track>(&m_end_timer, tail_ms);
        }
    }

    void notify_initiated() {
        tell_core([format = m_playing->format](nuv_connect* core) {
            return nuv_connect_notify_playback_initiated(core, format);
        });
    }

    void close_output() {
        if (m_playing != nullptr) {
            std::exchange(m_playing, nullptr)->open = false;
        }
        uv_timer_stop(&m_end_timer);
        m_end_armed = false;
        m_state = State::stopped;
    }

    void tell_core(const std::function<nuv_error(nuv_connect*)>& call) {
        EXPECT_EQ(guarded(call), NUV_ERROR_OK);
    }

    void expect_state(const char* what, std::initializer_list<State> allowed) const {
        EXPECT_NE(std::find(allowed.begin(), allowed.end(), m_state), allowed.end())
            << what << " in state " << static_cast<int>(m_state);
    }

    Source& source(uint64_t id) {
        EXPECT_EQ(m_sources.count(id), 1U) << "stream " << id << " does not exist";
        return m_sources[id];
    }

    void run(const std::function<bool()>& condition, uint64_t limit_ms, uint64_t tick_ms) {
        const uint64_t end = uv_hrtime() + limit_ms * 1'000'000;
        // Repeated: one that is due before the loop waits would leave it waiting for ever.
        uv_timer_start(
            &m_tick_timer, [](uv_timer_t*) {}, tick_ms, tick_ms);
        while (!condition() && uv_hrtime() < end) {
            uv_run(&m_loop, UV_RUN_ONCE);
        }
        uv_timer_stop(&m_tick_timer);
    }

    template <void (ScriptedDevice::*kMethod)()>
    void start(uv_timer_t* timer, uint64_t ms) {
        const auto call = [](uv_timer_t* due) {
            (static_cast<ScriptedDevice*>(due->data)->*kMethod)();
        };
        uv_timer_start(timer, call, ms, 0);
    }

    // By the core's log: sessions since the program's start.
    static inline std::atomic<int> s_joined, s_not_joined;

    uv_loop_t m_loop{};
    uv_timer_t m_resume_timer{}, m_end_timer{}, m_tick_timer{};
    std::thread::id m_loop_thread = std::this_thread::get_id();
    nuv_connect* m_core = nullptr;
    int m_calls_under_way = 0;

    State m_state = State::stopped;
    std::map<uint64_t, Source> m_sources;  // active, next, further
    Source* m_playing = nullptr;
    bool m_end_armed = false;
    bool m_is_advertising = false;
};
