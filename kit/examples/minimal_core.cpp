// The least that stands behind sdk/nuvio_connect.h: every session is one track, a tone of 10 s.
//
// One handle wakes the loop. What a call sets off waits in `later` for the loop's next pass, so no
// delegate comes from inside a call and none on another thread.
#include <sdk/nuvio_connect.h>

#include <algorithm>
#include <array>
#include <functional>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

constexpr nuv_audio_stream_info kInfo{{44100, 2, NUV_AUDIO_SAMPLE_FORMAT_16_BIT}, 10'000};
constexpr uint64_t kFrames = kInfo.duration_ms * 44100 / 1000;
constexpr nuv_stream_metadata kTexts{"A tone", "Nobody", "Nothing", ""};

struct nuv_connect {
    nuv_connect_config config;
    const nuv_audio_stream_delegate& streams = config.audio_stream_delegate;
    const nuv_media_delegate& media = config.media_delegate;
    uv_async_t wake{};
    // The loop's thread's.
    std::string session{};  // empty: none
    uint64_t stream = 0;    // id of the latest
    bool exists = false;    // not disposed of yet
    uint64_t frame = 0;     // the next one to be offered
    bool open = false;      // for offers
    bool finished = false;  // offered to the end
    // Any thread's, under the mutex.
    std::mutex mutex{};
    std::vector<std::function<void()>> later{};
    nuv_playback_state state = NUV_PLAYBACK_STATE_STOPPED;
    uint32_t volume = 50;
    bool active = false, muted = false;
};

namespace {

nuv_error post(nuv_connect* core, std::function<void()> action) {
    const std::scoped_lock lock(core->mutex);
    core->later.push_back(std::move(action));
    uv_async_send(&core->wake);
    return NUV_ERROR_OK;
}

template <typename Value>
nuv_error get(nuv_connect* core, Value nuv_connect::*field, Value* out) {
    const std::scoped_lock lock(core->mutex);
    *out = core->*field;
    return NUV_ERROR_OK;
}

template <typename Value>  // sets a field and, where that is news, tells the renderer later
nuv_error set(nuv_connect* core, Value nuv_connect::*field, Value value,
              void (*tell)(nuv_connect*, Value, void*)) {
    {
        const std::scoped_lock lock(core->mutex);
        if (std::exchange(core->*field, value) == value) {
            return NUV_ERROR_OK;
        }
    }
    return post(core, [=] { tell(core, value, core->media.context); });
}

nuv_error enter(nuv_connect* core, nuv_playback_state state) {
    return set(core, &nuv_connect::state, state, core->media.playback_state_changed);
}

// Calls the renderer later if the state is then the one that the call is for: it may have changed.
nuv_error control(nuv_connect* core, nuv_playback_state state, void (*call)(nuv_connect*, void*)) {
    return post(core, [=] {
        if (core->state == state) {
            call(core, core->media.context);
        }
    });
}

nuv_error stop(nuv_connect* core) {
    control(core, NUV_PLAYBACK_STATE_PAUSED, core->media.stop_playback);
    return control(core, NUV_PLAYBACK_STATE_PLAYING, core->media.stop_playback);
}

nuv_error end(nuv_connect* core) {  // the renderer has stopped, or heard the track to its end
    post(core, [core] {
        if (std::exchange(core->exists, false)) {
            core->streams.dispose(core, core->stream, core->streams.context);
        }
    });
    return enter(core, NUV_PLAYBACK_STATE_STOPPED);
}

void begin(nuv_connect* core) {
    if (std::exchange(core->exists, true)) {
        return;  // two sessions at once
    }
    core->open = core->finished = false;
    core->frame = 0;
    core->streams.started(core, ++core->stream, kInfo, 0, core->streams.context);
    core->streams.metadata(core, core->stream, &kTexts, core->streams.context);
    core->media.initiate_playback(core, NUV_PLAYBACK_STATE_PLAYING, core->media.context);
}

// The renderer is stopped first; what its end posts comes before the beginning.
nuv_error join(nuv_connect* core, const std::string& session, bool active) {
    stop(core);
    return post(core, [=] {
        core->session = session;
        {
            const std::scoped_lock lock(core->mutex);
            core->active = active;
        }
        if (active) {
            post(core, [core] { begin(core); });
        }
    });
}

void seek(nuv_connect* core, uint64_t position_ms) {
    if (core->exists && core->state != NUV_PLAYBACK_STATE_STOPPED) {
        position_ms = std::min(position_ms, kInfo.duration_ms);
        core->media.seek_in_progress(core, core->media.context);
        core->frame = position_ms * 44100 / 1000;
        core->finished = false;
        core->streams.seeked(core, core->stream, position_ms, core->streams.context);
    }
}

void offer(nuv_connect* core) {  // one block a pass, so that nothing else has to wait for long
    if (!core->exists || !core->open || core->finished) {
        return;
    }
    std::array<std::array<int16_t, 2>, 1024> block{};
    const size_t frames = std::min<uint64_t>(block.size(), kFrames - core->frame);
    for (size_t i = 0; i < frames; ++i) {
        block[i].fill(static_cast<int16_t>((core->frame + i) % 100 * 40));
    }
    core->open = false;  // before the call, which may open it again
    const size_t size = frames * sizeof block[0];
    const size_t taken = size == 0 ? 0
                                   : core->streams.data(core, core->stream, block.data(), size,
                                                        core->streams.context);
    core->open |= taken == size;
    core->frame += taken / sizeof block[0];
    if (core->frame == kFrames) {
        core->finished = true;
        core->streams.finished(core, core->stream, core->streams.context);
    }
    uv_async_send(&core->wake);
}

void on_wake(uv_async_t* wake) {
    auto* const core = static_cast<nuv_connect*>(wake->data);
    std::vector<std::function<void()>> now;
    {
        const std::scoped_lock lock(core->mutex);
        now.swap(core->later);
    }
    for (const auto& action : now) {
        action();
    }
    offer(core);
}

void start_services(nuv_connect* core) {
    const auto& server = core->config.local_config_server_delegate;
    const auto& advertising = core->config.advertising_delegate;
    server.start(core, server.context);
    advertising.start(core, core->config.device_name, "_nuvio-connect._tcp", advertising.context);
}

}  // namespace

nuv_connect* nuv_connect_create(uv_loop_t* loop, nuv_connect_config config, nuv_error* error) {
    auto* const core = new nuv_connect{config};
    *error = uv_async_init(loop, &core->wake, on_wake) == 0 ? NUV_ERROR_OK : NUV_ERROR_INTERNAL;
    core->wake.data = core;
    post(core, [core] { start_services(core); });
    return core;
}

void nuv_connect_free(nuv_connect* core) {
    uv_close(reinterpret_cast<uv_handle_t*>(&core->wake),
             [](uv_handle_t* handle) { delete static_cast<nuv_connect*>(handle->data); });
}

nuv_error nuv_connect_get_session_id(nuv_connect* core, const char** session_id) {
    *session_id = core->session.empty() ? *session_id : core->session.c_str();
    return NUV_ERROR_OK;
}

nuv_error nuv_connect_get_stream_metadata(nuv_connect* core, uint64_t id,
                                          nuv_stream_metadata* out) {
    *out = kTexts;
    return core->exists && id == core->stream ? NUV_ERROR_OK : NUV_ERROR_NOT_FOUND;
}

nuv_error nuv_connect_resume_audio_delivery(nuv_connect* core, uint64_t id) {
    core->open = core->exists && id == core->stream;
    uv_async_send(&core->wake);
    return core->open ? NUV_ERROR_OK : NUV_ERROR_NOT_FOUND;
}

// The others, a line each.
#define NUV_CALL(name, parameters, result)    \
    nuv_error nuv_connect_##name parameters { \
        return result;                        \
    }
#define NUV_TEXT(name, parameters, result) \
    const char* name parameters {          \
        return result;                     \
    }
using Core = nuv_connect;
using Text = const char*;

NUV_CALL(connect, (Core * c, Text id, Text, Text, uint64_t, Text, Text, uint64_t, bool active),
         join(c, id, active))
NUV_CALL(set_log_delegate, (Core*, nuv_log_delegate), NUV_ERROR_OK)
NUV_CALL(get_device_uuid, (Core*, Text* uuid),
         (*uuid = "5f0c6f2e-0000-4000-8000-000000000001", NUV_ERROR_OK))
NUV_CALL(pause_playback, (Core * c),
         control(c, NUV_PLAYBACK_STATE_PLAYING, c->media.pause_playback))
NUV_CALL(resume_playback, (Core * c),
         control(c, NUV_PLAYBACK_STATE_PAUSED, c->media.resume_playback))
NUV_CALL(stop_playback, (Core * c), stop(c))
NUV_CALL(next_track, (Core*), NUV_ERROR_NOT_FOUND)
NUV_CALL(previous_track, (Core*), NUV_ERROR_NOT_FOUND)
NUV_CALL(deactivate_and_disconnect_renderer, (Core * c), join(c, "", false))
NUV_CALL(seek_time, (Core * c, uint64_t ms), post(c, [=] { seek(c, ms); }))
NUV_CALL(set_volume, (Core * c, uint32_t v),
         v > 100 ? NUV_ERROR_INVALID_ARGUMENT : set(c, &Core::volume, v, c->media.volume_changed))
NUV_CALL(set_mute_state, (Core * c, bool m), set(c, &Core::muted, m, c->media.mute_state_changed))
NUV_CALL(set_shuffle_mode, (Core*, bool), NUV_ERROR_INVALID_STATE)
NUV_CALL(set_loop_mode, (Core*, nuv_loop_mode), NUV_ERROR_INVALID_STATE)
NUV_CALL(set_device_name, (Core*, Text), NUV_ERROR_INVALID_STATE)
NUV_CALL(get_volume, (Core * c, uint32_t* out), get(c, &Core::volume, out))
NUV_CALL(get_mute_state, (Core * c, bool* out), get(c, &Core::muted, out))
NUV_CALL(get_shuffle_mode, (Core*, bool* out), (*out = false, NUV_ERROR_OK))
NUV_CALL(get_loop_mode, (Core*, nuv_loop_mode* out), (*out = NUV_LOOP_MODE_OFF, NUV_ERROR_OK))
NUV_CALL(get_renderer_active_state, (Core * c, bool* out), get(c, &Core::active, out))
NUV_CALL(get_playback_state, (Core * c, nuv_playback_state* out), get(c, &Core::state, out))
NUV_CALL(notify_playback_initiated, (Core * c, nuv_audio_format),
         enter(c, NUV_PLAYBACK_STATE_PLAYING))
NUV_CALL(notify_playback_paused, (Core * c), enter(c, NUV_PLAYBACK_STATE_PAUSED))
NUV_CALL(notify_playback_resumed, (Core * c), enter(c, NUV_PLAYBACK_STATE_PLAYING))
NUV_CALL(notify_playback_stopped, (Core * c), end(c))
NUV_CALL(notify_playback_error, (Core * c), end(c))
NUV_CALL(notify_playback_finished, (Core * c, bool), end(c))
NUV_TEXT(nuv_connect_get_sdk_version, (), "minimal")
NUV_TEXT(nuv_error_to_string, (nuv_error error), error == NUV_ERROR_OK ? "OK" : "failed")
NUV_TEXT(nuv_audio_quality_to_string, (nuv_audio_quality), "CD")
NUV_TEXT(nuv_device_type_to_string, (nuv_device_type), "SPEAKER")
NUV_TEXT(nuv_loop_mode_to_string, (nuv_loop_mode), "OFF")
NUV_TEXT(nuv_playback_state_to_string, (nuv_playback_state s),
         s == 1   ? "PLAYING"
         : s == 2 ? "PAUSED"
                  : "STOPPED")
size_t nuv_audio_sample_format_size(nuv_audio_sample_format format) {
    return format == NUV_AUDIO_SAMPLE_FORMAT_16_BIT ? 2 : 4;
}
