#include "local_core/scripted_device.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cinttypes>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <utility>

namespace {

constexpr uint64_t kPatienceMs = 10000;

ScriptedDevice* device(void* context) {
    return static_cast<ScriptedDevice*>(context);
}

// The log callback has no context, and may come from any thread.
std::mutex log_mutex;
std::string log_lines;

bool same_format(const nuv_audio_format& a, const nuv_audio_format& b) {
    return a.sample_rate == b.sample_rate && a.channel_count == b.channel_count &&
           a.sample_format == b.sample_format;
}

}  // namespace

nuv_connect_config ScriptedDevice::config(ScriptedDevice* owner) {
    nuv_connect_config config{};
    config.interface_version = 1;
    config.device_name = "Kitchen";
    config.manufacturer = "Maker";
    config.model = "Model";
    config.serial_number = "0001";
    config.hardware_id = "0001";
    config.app_id = "app";
    config.app_secret = "secret";
    config.renderer_count = 1;
    config.advertising_delegate = {
        owner,
        [](nuv_connect*, const char* name, const char* service, void* context) {
            device(context)->enter();
            EXPECT_FALSE(std::exchange(device(context)->m_started_advertising, true));
            device(context)->line("advertise %s %s", name, service);
        },
        [](nuv_connect*, void* context) {
            device(context)->enter();
            EXPECT_TRUE(std::exchange(device(context)->m_started_advertising, false));
            device(context)->line("stop advertising");
        }};
    config.local_config_server_delegate = {
        owner, [](nuv_connect*, void* context) { device(context)->line("start server"); },
        [](nuv_connect*, void* context) { device(context)->line("stop server"); }};
    nuv_audio_stream_delegate& audio = config.audio_stream_delegate;
    audio.context = owner;
    audio.started = [](nuv_connect*, uint64_t id, nuv_audio_stream_info info, uint64_t position,
                       void* context) {
        ScriptedDevice* self = device(context);
        self->enter();
        self->line("started %" PRIu64 " %u Hz %u ch %d bit %" PRIu64 " ms", id,
                   info.format.sample_rate, info.format.channel_count,
                   info.format.sample_format == NUV_AUDIO_SAMPLE_FORMAT_16_BIT ? 16 : 24,
                   info.duration_ms);
        EXPECT_EQ(position, 0U);
        EXPECT_EQ(self->source(id), nullptr);
        if (self->m_sources.empty()) {
            self->expect_state("a first stream", {State::stopped});
        }
        self->m_sources.push_back(std::make_unique<Source>(Source{id, info, {}}));
        self->pcm_of_stream.resize(std::max<size_t>(self->pcm_of_stream.size(), id + 1));
        self->hand_over();
    };
    audio.data = [](nuv_connect*, uint64_t id, const void* pcm, size_t size, void* context) {
        return device(context)->on_data(id, pcm, size);
    };
    audio.metadata = [](nuv_connect*, uint64_t id, const nuv_stream_metadata* metadata,
                        void* context) {
        device(context)->expect_source(id);
        device(context)->line("metadata %" PRIu64 " %s|%s|%s|%s", id, metadata->title,
                              metadata->artist, metadata->album, metadata->album_art_url);
    };
    audio.finished = [](nuv_connect*, uint64_t id, void* context) {
        device(context)->on_finished(id);
    };
    audio.seeked = [](nuv_connect*, uint64_t id, uint64_t reached_ms, void* context) {
        ScriptedDevice* self = device(context);
        self->expect_state("seeked", {State::playing_seeking, State::paused_seeking});
        self->line("seeked %" PRIu64 " %" PRIu64, id, reached_ms);
        Source* source = self->expect_source(id);
        source->pcm.clear();
        self->pcm_of_stream[id].clear();
        source->finished = false;
        self->m_state = self->m_state == State::playing_seeking ? State::playing : State::paused;
    };
    audio.dispose = [](nuv_connect*, uint64_t id, void* context) {
        device(context)->on_dispose(id);
    };

    nuv_media_delegate& media = config.media_delegate;
    media.context = owner;
    media.initiate_playback = [](nuv_connect*, nuv_playback_state initial, void* context) {
        device(context)->on_initiate(initial);
    };
    media.pause_playback = [](nuv_connect* core, void* context) {
        ScriptedDevice* self = device(context);
        self->expect_state("pause", {State::playing});
        self->line("pause");
        self->m_playing->open = false;
        uv_timer_stop(&self->m_end_timer);
        uv_timer_stop(&self->m_lead_timer);
        self->m_state = State::paused;
        EXPECT_EQ(nuv_connect_notify_playback_paused(core), NUV_ERROR_OK);
    };
    media.resume_playback = [](nuv_connect* core, void* context) {
        ScriptedDevice* self = device(context);
        self->expect_state("resume", {State::paused});
        self->line("resume");
        self->m_state = State::playing;
        self->open(self->m_playing);
        if (self->m_end_armed) {
            self->arm_end();
        }
        EXPECT_EQ(nuv_connect_notify_playback_resumed(core), NUV_ERROR_OK);
    };
    media.stop_playback = [](nuv_connect* core, void* context) {
        ScriptedDevice* self = device(context);
        self->expect_state(
            "stop", {State::playing, State::playing_seeking, State::paused, State::paused_seeking});
        self->line("stop");
        self->do_stop();
        EXPECT_EQ(nuv_connect_notify_playback_stopped(core), NUV_ERROR_OK);
    };
    media.seek_in_progress = [](nuv_connect*, void* context) { device(context)->on_seek(); };
    media.get_playback_position = [](nuv_connect*, void* context) {
        return device(context)->position_ms;
    };
    media.volume_changed = [](nuv_connect*, uint32_t volume, void* context) {
        device(context)->enter();
        device(context)->line("volume %u", volume);
    };
    media.mute_state_changed = [](nuv_connect*, bool muted, void* context) {
        device(context)->line("muted %d", muted);
    };
    media.playback_state_changed = [](nuv_connect*, nuv_playback_state state, void* context) {
        device(context)->enter();
        EXPECT_EQ(device(context)->state(), state);
        device(context)->line("state %s", nuv_playback_state_to_string(state));
    };
    media.maximum_audio_quality_changed = [](nuv_connect*, nuv_audio_quality, void*) {};
    media.playback_controls_changed = [](nuv_connect*, nuv_loop_mode loop_mode, bool shuffle,
                                         void* context) {
        device(context)->line("controls %s %d", nuv_loop_mode_to_string(loop_mode), shuffle);
    };
    media.playback_actions_availability_changed = [](nuv_connect*, bool next, void* context) {
        device(context)->line("next available %d", next);
    };
    config.renderer_state_delegate = {owner, [](nuv_connect*, bool active, void* context) {
                                          device(context)->line("active %d", active);
                                      }};
    return config;
}

ScriptedDevice::ScriptedDevice() : m_loop_thread(std::this_thread::get_id()) {
    uv_loop_init(&m_loop);
    for (uv_timer_t* timer : {&m_resume_timer, &m_lead_timer, &m_end_timer, &m_guard_timer}) {
        uv_timer_init(&m_loop, timer);
        timer->data = this;
    }
    nuv_error error = NUV_ERROR_INTERNAL;
    m_core = nuv_connect_create(&m_loop, config(this), &error);
    EXPECT_EQ(error, NUV_ERROR_OK);
    EXPECT_TRUE(lines.empty()) << "a delegate came from inside create";
    log_lines.clear();
    nuv_connect_set_log_delegate(m_core, {nullptr, [](uint32_t, const char*, const char* message) {
                                              const std::lock_guard lock(log_mutex);
                                              log_lines.append(message).append("\n");
                                          }});
}

std::string ScriptedDevice::log() {
    const std::lock_guard lock(log_mutex);
    return log_lines;
}

ScriptedDevice::~ScriptedDevice() {
    free_core();
    for (uv_timer_t* timer : {&m_resume_timer, &m_lead_timer, &m_end_timer, &m_guard_timer}) {
        uv_close(reinterpret_cast<uv_handle_t*>(timer), nullptr);
    }
    uv_run(&m_loop, UV_RUN_DEFAULT);
    EXPECT_EQ(uv_loop_close(&m_loop), 0) << "the core left a handle behind";
}

void ScriptedDevice::free_core() {
    if (m_core == nullptr) {
        return;
    }
    const size_t before = lines.size();
    nuv_connect_free(std::exchange(m_core, nullptr));
    uv_timer_stop(&m_resume_timer);
    uv_timer_stop(&m_lead_timer);
    uv_timer_stop(&m_end_timer);
    uv_run(&m_loop, UV_RUN_NOWAIT);
    EXPECT_EQ(lines.size(), before) << "a delegate came from free or later";
}

bool ScriptedDevice::has_line(const std::string& line) const {
    return std::find(lines.begin(), lines.end(), line) != lines.end();
}

void ScriptedDevice::run_until(const std::function<bool()>& condition) {
    m_guard_fired = false;
    uv_timer_start(
        &m_guard_timer, [](uv_timer_t* timer) { device(timer->data)->m_guard_fired = true; },
        kPatienceMs, kPatienceMs);
    while (!condition() && !m_guard_fired) {
        uv_run(&m_loop, UV_RUN_ONCE);
    }
    uv_timer_stop(&m_guard_timer);
    if (m_guard_fired) {
        std::string all;
        for (const std::string& line : lines) {
            all += "\n  " + line;
        }
        FAIL() << "nothing came of it:" << all;
    }
}

void ScriptedDevice::run_until_line(const std::string& line) {
    SCOPED_TRACE(line);
    run_until([&] { return has_line(line); });
}

void ScriptedDevice::run_for_ms(uint64_t ms) {
    const uint64_t end = uv_hrtime() + ms * 1000000;
    // Repeated: one that is due before the loop waits would leave it waiting for ever.
    uv_timer_start(
        &m_guard_timer, [](uv_timer_t*) {}, 1, 1);
    while (uv_hrtime() < end) {
        uv_run(&m_loop, UV_RUN_ONCE);
    }
    uv_timer_stop(&m_guard_timer);
}

nuv_error ScriptedDevice::play(const std::string& endpoint, bool become_active) {
    return guarded(*this, [&](nuv_connect* core) {
        return nuv_connect_connect(core, "session", endpoint.c_str(), "", 0, "", "", 0,
                                   become_active);
    });
}

nuv_playback_state ScriptedDevice::state() const {
    nuv_playback_state state{};
    EXPECT_EQ(nuv_connect_get_playback_state(m_core, &state), NUV_ERROR_OK);
    return state;
}

ScriptedDevice::Source* ScriptedDevice::source(uint64_t id) {
    for (const auto& source : m_sources) {
        if (source->id == id) {
            return source.get();
        }
    }
    return nullptr;
}

ScriptedDevice::Source* ScriptedDevice::active() const {
    return m_sources.empty() ? nullptr : m_sources[0].get();
}

ScriptedDevice::Source* ScriptedDevice::next() const {
    return m_sources.size() < 2 ? nullptr : m_sources[1].get();
}

void ScriptedDevice::fail_playback() {
    do_stop();
    EXPECT_EQ(nuv_connect_notify_playback_error(m_core), NUV_ERROR_OK);
}

void ScriptedDevice::expect_state(const char* what, std::initializer_list<State> allowed) {
    enter();
    EXPECT_TRUE(std::find(allowed.begin(), allowed.end(), m_state) != allowed.end())
        << what << " in state " << static_cast<int>(m_state);
}

void ScriptedDevice::enter() {
    EXPECT_EQ(calls_under_way, 0) << "a delegate came from inside a call";
    EXPECT_EQ(std::this_thread::get_id(), m_loop_thread);
}

void ScriptedDevice::line(const char* format, ...) {
    char text[1024];
    va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(text, sizeof text, format, arguments);
    va_end(arguments);
    lines.emplace_back(text);
}

ScriptedDevice::Source* ScriptedDevice::expect_source(uint64_t id) {
    enter();
    Source* found = source(id);
    EXPECT_NE(found, nullptr) << "stream " << id << " does not exist";
    return found;
}

void ScriptedDevice::open(Source* source) {
    if (!std::exchange(source->open, true)) {
        EXPECT_EQ(guarded(*this,
                          [&](nuv_connect* core) {
                              return nuv_connect_resume_audio_delivery(core, source->id);
                          }),
                  NUV_ERROR_OK);
    }
}

size_t ScriptedDevice::on_data(uint64_t id, const void* data, size_t size) {
    Source* source = expect_source(id);
    const size_t frame_bytes = nuv_audio_sample_format_size(source->info.format.sample_format) *
                               source->info.format.channel_count;
    EXPECT_GT(size, 0U);
    EXPECT_EQ(size % frame_bytes, 0U);
    EXPECT_FALSE(source->finished);
    if (!source->open) {
        return 0;
    }
    EXPECT_EQ(source, m_playing);
    expect_state("data", {State::playing, State::paused});
    size_t taken = 0;
    if (m_state == State::playing) {
        taken = take ? std::min(take(size) / frame_bytes * frame_bytes, size) : size;
    }
    const auto* bytes = static_cast<const std::byte*>(data);
    for (std::vector<std::byte>* out : {&source->pcm, &heard, &pcm_of_stream[id]}) {
        out->insert(out->end(), bytes, bytes + taken);
    }
    if (taken < size) {
        source->open = false;
        uv_timer_start(
            &m_resume_timer,
            [](uv_timer_t* timer) {
                ScriptedDevice* self = device(timer->data);
                if (self->m_state == State::playing) {
                    self->open(self->m_playing);
                }
            },
            0, 0);
    }
    return taken;
}

void ScriptedDevice::on_finished(uint64_t id) {
    Source* source = expect_source(id);
    line("finished %" PRIu64, id);
    source->finished = true;
    if (source == active()) {
        expect_state("finished", {State::playing, State::paused});
        m_end_armed = true;
        if (m_state == State::playing) {
            arm_end();
        }
    }
}

void ScriptedDevice::arm_end() {
    uv_timer_start(
        &m_lead_timer, [](uv_timer_t* timer) { device(timer->data)->hand_over(); },
        tail_ms - lead_ms, 0);
    uv_timer_start(
        &m_end_timer, [](uv_timer_t* timer) { device(timer->data)->end_of_track(); }, tail_ms, 0);
}

// The next stream of the same format flows behind the tail of the current one.
void ScriptedDevice::hand_over() {
    const bool in_interval = uv_is_active(reinterpret_cast<uv_handle_t*>(&m_end_timer)) &&
                             !uv_is_active(reinterpret_cast<uv_handle_t*>(&m_lead_timer));
    if (m_state != State::playing || !in_interval || next() == nullptr || m_playing != active() ||
        !same_format(active()->info.format, next()->info.format)) {
        return;
    }
    m_playing = next();
    open(m_playing);
}

void ScriptedDevice::end_of_track() {
    m_end_armed = false;
    uv_timer_stop(&m_lead_timer);
    Source* following = next();
    line("end of track");
    EXPECT_EQ(guarded(*this,
                      [&](nuv_connect* core) {
                          return nuv_connect_notify_playback_finished(core, following == nullptr);
                      }),
              NUV_ERROR_OK);
    if (following == nullptr) {
        do_stop();
        return;
    }
    if (m_playing != following) {
        m_playing = following;
        open(following);
    }
    EXPECT_EQ(guarded(*this,
                      [&](nuv_connect* core) {
                          return nuv_connect_notify_playback_initiated(core,
                                                                       following->info.format);
                      }),
              NUV_ERROR_OK);
    if (following->finished) {
        m_end_armed = true;
        uv_timer_start(
            &m_end_timer, [](uv_timer_t* timer) { device(timer->data)->end_of_track(); }, tail_ms,
            0);
    }
}

void ScriptedDevice::on_dispose(uint64_t id) {
    Source* source = expect_source(id);
    line("dispose %" PRIu64, id);
    if (source == m_playing) {
        EXPECT_EQ(source, next()) << "the playing stream was disposed of";
        m_playing = active();
    }
    std::erase_if(m_sources, [source](const auto& entry) { return entry.get() == source; });
}

void ScriptedDevice::on_initiate(nuv_playback_state initial) {
    expect_state("initiate", {State::stopped});
    line("initiate %s", nuv_playback_state_to_string(initial));
    ASSERT_NE(active(), nullptr);
    if (refuses_output) {
        EXPECT_EQ(nuv_connect_notify_playback_error(m_core), NUV_ERROR_OK);
        EXPECT_EQ(nuv_connect_deactivate_and_disconnect_renderer(m_core), NUV_ERROR_OK);
        return;
    }
    m_playing = active();
    m_state = initial == NUV_PLAYBACK_STATE_PLAYING ? State::playing : State::paused;
    if (m_state == State::playing) {
        open(m_playing);
    }
    EXPECT_EQ(nuv_connect_notify_playback_initiated(m_core, m_playing->info.format), NUV_ERROR_OK);
}

void ScriptedDevice::on_seek() {
    expect_state("seek", {State::playing, State::paused});
    line("seek in progress");
    if (m_playing != active()) {
        m_playing->open = false;
        m_playing = active();
    }
    uv_timer_stop(&m_lead_timer);
    uv_timer_stop(&m_end_timer);
    m_end_armed = false;
    m_state = m_state == State::playing ? State::playing_seeking : State::paused_seeking;
}

void ScriptedDevice::do_stop() {
    if (m_playing != nullptr) {
        m_playing->open = false;
        m_playing = nullptr;
    }
    uv_timer_stop(&m_lead_timer);
    uv_timer_stop(&m_end_timer);
    m_end_armed = false;
    m_state = State::stopped;
}
