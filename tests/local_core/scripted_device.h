// A device around the real core: the real renderer, on a sink that the test scripts. Delegates are
// noted on their way to the renderer. That each comes on the loop's thread, from outside of any
// call, and is one for the renderer's state and for a stream that lives are rules of
// kit/conformance.
#pragma once

#include <sys/socket.h>
#include <uv.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <functional>
#include <sstream>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "loop_fixture.h"
#include "media/audio_renderer_private.h"
#include "media/source/audio_source_private.h"
#include "renderer/fake_sink.h"
#include "renderer/journal.h"
#include "utility/log_delegate.h"

class ScriptedDevice : public LoopTest {
  public:
    // Called by the renderer's timer, in the place of the core's function.
    static void end_of_track() { s_current->lines.emplace_back("end of track"); }

  protected:
    ScriptedDevice() {
        setenv("NUVIO_MUSIC_FOLDERS", "/", 1);
        log_silence();
        s_current = this;
        fake_sink::reset();
        fake_sink::state().take = [this](size_t offered) { return write(offered); };
        uv_timer_init(&loop_, &m_room_timer);
        m_renderer = audio_renderer_new(&loop_, "pcm", "mixer", "element");
        m_audio = audio_renderer_get_audio_stream_delegate(m_renderer);
        m_media = audio_renderer_get_media_delegate(m_renderer);
        // What the core takes for its local configuration server: it asks until something listens.
        static const int server = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        listen(server, 1);
        m_core = nuv_connect_create(&loop_, config(), nullptr);
        audio_renderer_set_core(m_renderer, m_core);
        nuv_connect_set_log_delegate(m_core,
                                     {nullptr, [](uint32_t, const char*, const char* message) {
                                          const std::string_view text(message);
                                          s_joined += text.starts_with("Joining session");
                                          s_not_joined += text.starts_with("Not joining session");
                                          if (text.find("verified") != text.npos) {
                                              s_current->verdicts.emplace_back(text);
                                          }
                                      }});
    }
    ~ScriptedDevice() override {
        nuv_connect_free(m_core);
        audio_renderer_free(m_renderer);
        uv_close(reinterpret_cast<uv_handle_t*>(&m_room_timer), nullptr);
        uv_run(&loop_, UV_RUN_DEFAULT);
    }

    nuv_connect* core() const { return m_core; }

    // What the renderer is told of the playback, its name and arguments: "initiate PLAYING",
    // "metadata 1 'title'"; and "end of track" from the renderer.
    std::vector<std::string> lines;
    std::vector<std::string> take_lines() { return std::exchange(lines, {}); }
    bool has_line(const std::string& line) const { return std::ranges::count(lines, line) > 0; }

    // What the core's log says of each track that is over, with its name.
    std::vector<std::string> verdicts;

    // Taken of each stream since its start or last seek, by id.
    std::vector<std::vector<std::byte>> pcm_of_stream;

    // How much of a write the sink takes; by default all. Room comes a little later.
    std::function<size_t(size_t offered)> take;
    // What becomes of a write that `take` is asked about.
    static void fail_playback(bool fails = true) { fake_sink::state().can_write = !fails; }
    uint64_t tail_ms = 4;          // what the sink holds when a track has been delivered
    bool holds_hand_over = false;  // the track does not end after that, while its next one flows

    // Fails the test when the condition does not hold within thirty seconds.
    void run_until(const std::function<bool()>& condition) {
        ASSERT_TRUE(LoopTest::run_until([&] {
            journal::take();  // it would grow
            return condition();
        })) << testing::PrintToString(lines);
    }
    void run_until_line(const std::string& line) {
        SCOPED_TRACE(line);
        run_until([&] { return has_line(line); });
    }
    // Connects to an endpoint, as "session", with no expiry, and waits until it is joined or, with
    // NUV_ERROR_EMPTY_SESSION, found to have nothing to play.
    nuv_error play(const std::string& endpoint, bool become_active = true) {
        const int joined = s_joined;
        const int not_joined = s_not_joined;
        const nuv_error error = nuv_connect_connect(m_core, "session", endpoint.c_str(), "", 0, "",
                                                    "", 0, become_active);
        if (error == NUV_ERROR_OK) {
            run_until([&] { return s_joined != joined || s_not_joined != not_joined; });
        }
        return s_not_joined != not_joined ? NUV_ERROR_EMPTY_SESSION : error;
    }

    audio_source* active() const { return active_source_of(m_renderer); }
    audio_source* next() const {
        return audio_source_manager_get_next_source(m_renderer->source_manager.get());
    }
    bool active_is_finished() const { return active()->state == AUDIO_SOURCE_STATE_FINISHED; }
    uint64_t playing_id() const {
        return m_renderer->playing_source != nullptr ? m_renderer->playing_source->id : 0;
    }

  private:
    using Audio = nuv_audio_stream_delegate;
    using Media = nuv_media_delegate;

    // ---- Lines

    template <typename Value>
    static void print(std::ostream& out, const Value& value) {
        if constexpr (std::is_same_v<Value, nuv_playback_state>) {
            out << " " << nuv_playback_state_to_string(value);
        } else if constexpr (std::is_same_v<Value, nuv_loop_mode>) {
            out << " " << nuv_loop_mode_to_string(value);
        } else if constexpr (std::is_same_v<Value, const nuv_stream_metadata*>) {
            out << " '" << value->title << "'";
        } else if constexpr (std::is_integral_v<Value>) {
            out << " " << value;
        }
    }
    // ---- Delegates

    template <size_t size>
    struct Name {
        char text[size];
        // NOLINTNEXTLINE(google-explicit-constructor): a literal becomes one
        constexpr Name(const char (&literal)[size]) { std::copy_n(literal, size, text); }
    };
    // A delegate of the renderer, noted.
    template <auto kDelegate, Name kName, typename Function>
    struct Noted;
    template <auto kDelegate, Name kName, typename Result, typename... Arguments>
    struct Noted<kDelegate, kName, Result (*)(nuv_connect*, Arguments...)> {
        static Result call(nuv_connect* core, Arguments... arguments) {
            std::ostringstream line;
            line << kName.text;
            (print(line, arguments), ...);
            s_current->lines.push_back(line.str());
            return (record_of(kDelegate).*kDelegate)(core, arguments...);
        }
    };
    static const Audio& record_of(auto Audio::*) { return s_current->m_audio; }
    static const Media& record_of(auto Media::*) { return s_current->m_media; }
    template <typename Record, typename Function>
    static Function function_of(Function Record::*);
    template <auto kDelegate, Name kName>
    static constexpr auto* kNoted = Noted<kDelegate, kName, decltype(function_of(kDelegate))>::call;

    static void started(nuv_connect* core, uint64_t id, nuv_audio_stream_info info,
                        uint64_t position_ms, void* context) {
        s_current->pcm_of_stream.resize(std::max<size_t>(s_current->pcm_of_stream.size(), id + 1));
        kNoted<&Audio::started, "started">(core, id, info, position_ms, context);
    }
    static size_t data(nuv_connect* core, uint64_t id, const void* pcm, size_t size,
                       void* context) {
        const size_t taken = s_current->m_audio.data(core, id, pcm, size, context);
        const auto* const bytes = static_cast<const std::byte*>(pcm);
        std::vector<std::byte>& heard = s_current->pcm_of_stream[id];
        heard.insert(heard.end(), bytes, bytes + taken);
        s_current->m_last_begun = std::max(s_current->m_last_begun, taken > 0 ? id : 0);
        return taken;
    }
    static void finished(nuv_connect* core, uint64_t id, void* context) {
        if (const audio_source* active = s_current->active();
            active != nullptr && active->id == id) {
            fake_sink::state().buffered_frames =
                s_current->tail_ms * active->format.sample_rate / 1000;
        }
        kNoted<&Audio::finished, "finished">(core, id, context);
        uv_timer_t* end = &s_current->m_renderer->playback_finished_timer->timer;
        if (s_current->holds_hand_over && uv_timer_is_active(end)) {
            uv_timer_start(end, end->timer_cb, 60'000, 0);
        }
    }
    static void seeked(nuv_connect* core, uint64_t id, uint64_t reached_ms, void* context) {
        s_current->pcm_of_stream[id].clear();
        s_current->m_last_begun = std::max(s_current->m_last_begun, id);
        kNoted<&Audio::seeked, "seeked">(core, id, reached_ms, context);
    }
    static void initiate(nuv_connect* core, nuv_playback_state initial, void* context) {
        fake_sink::state().buffered_frames = 0;
        kNoted<&Media::initiate_playback, "initiate">(core, initial, context);
    }
    // Not every output can tell before something was written to it.
    static uint64_t position(nuv_connect* core, void* context) {
        const audio_source* active = s_current->active();
        EXPECT_TRUE(active != nullptr && active->id <= s_current->m_last_begun);
        return s_current->m_media.get_playback_position(core, context);
    }

    nuv_connect_config config() const {
        nuv_connect_config config{};
        config.interface_version = config.renderer_count = 1;
        config.device_name = "Kitchen";
        config.manufacturer = config.model = config.serial_number = config.hardware_id = "text";
        config.app_id = config.app_secret = "app";
        config.maximum_audio_quality = NUV_AUDIO_QUALITY_HI_RES_LEVEL_3;
        setenv("NUVIO_OUTPUT_RATES", "8000,11025,16000,44100,48000,96000", 1);
        config.advertising_delegate = {nullptr,
                                       [](nuv_connect*, const char*, const char*, void*) {},
                                       [](nuv_connect*, void*) {}};
        const auto server = [](nuv_connect*, void*) {};
        config.local_config_server_delegate = {nullptr, server, server};
        nuv_audio_stream_delegate& audio = config.audio_stream_delegate = m_audio;
        audio.started = started;
        audio.data = data;
        audio.metadata = kNoted<&Audio::metadata, "metadata">;
        audio.finished = finished;
        audio.seeked = seeked;
        audio.dispose = kNoted<&Audio::dispose, "dispose">;
        nuv_media_delegate& media = config.media_delegate = m_media;
        media.initiate_playback = initiate;
        media.get_playback_position = position;
        media.pause_playback = kNoted<&Media::pause_playback, "pause">;
        media.stop_playback = kNoted<&Media::stop_playback, "stop">;
        media.seek_in_progress = kNoted<&Media::seek_in_progress, "seek in progress">;
        media.playback_state_changed = kNoted<&Media::playback_state_changed, "state">;
        media.playback_controls_changed = kNoted<&Media::playback_controls_changed, "controls">;
        config.renderer_state_delegate = {nullptr, [](nuv_connect*, bool, void*) {}};
        return config;
    }

    // ---- The sink

    size_t write(size_t offered) {
        const nuv_audio_format& format = m_renderer->playing_source->format;
        const size_t frame_bytes =
            nuv_audio_sample_format_size(format.sample_format) * format.channel_count;
        const size_t taken = take ? take(offered) / frame_bytes * frame_bytes : offered;
        if (taken < offered) {
            uv_timer_start(
                &m_room_timer, [](uv_timer_t*) { fake_sink::signal_space(); }, 1, 0);
        }
        return taken;
    }

    static inline ScriptedDevice* s_current = nullptr;
    // By the core's log: sessions since the program's start.
    static inline std::atomic<int> s_joined, s_not_joined;

    uv_timer_t m_room_timer{};
    audio_renderer* m_renderer = nullptr;
    Audio m_audio{};  // the renderer's
    Media m_media{};
    nuv_connect* m_core = nullptr;
    // The last stream of which something was taken, or that was sought in.
    uint64_t m_last_begun = 0;
};

// The linker puts it in place of the core's.
extern "C" {
nuv_error __real_nuv_connect_notify_playback_finished(nuv_connect* core, bool no_next_track);
[[gnu::used]] inline nuv_error __wrap_nuv_connect_notify_playback_finished(nuv_connect* core,
                                                                           bool no_next_track) {
    ScriptedDevice::end_of_track();
    return __real_nuv_connect_notify_playback_finished(core, no_next_track);
}
}
