#include "fakes/fake_sdk.h"

#include <mutex>
#include <sstream>
#include <utility>

#include "fakes/echo.h"

struct nuv_connect {};

namespace fake_sdk {
namespace {

struct State {
    std::vector<std::string> calls;
    std::map<std::string, nuv_error> results;
    void (*hook)(const std::string& call) = nullptr;
    Values values;
    nuv_connect_config config{};
    nuv_log_delegate log_delegate{};
};

std::mutex g_mutex;
State g_state;
nuv_connect g_core;

nuv_error result_of(const std::string& name) {
    const std::scoped_lock lock(g_mutex);
    const auto found = g_state.results.find(name);
    return found == g_state.results.end() ? NUV_ERROR_OK : found->second;
}

template <typename... Arguments>
nuv_error record(const std::string& name, const Arguments&... arguments) {
    std::ostringstream line;
    line << std::boolalpha << name;
    ((line << ' ' << arguments), ...);
    void (*hook)(const std::string&) = nullptr;
    {
        const std::scoped_lock lock(g_mutex);
        g_state.calls.push_back(line.str());
        hook = g_state.hook;
    }
    fakes::echo("-> sdk", line.str());
    if (hook != nullptr) {
        hook(line.str());
    }
    return result_of(name);
}

template <typename T>
nuv_error answer(const std::string& name, T* out, T Values::*value) {
    const nuv_error result = result_of(name);
    if (result == NUV_ERROR_OK) {
        const std::scoped_lock lock(g_mutex);
        *out = g_state.values.*value;
    }
    return result;
}

}  // namespace

void reset() {
    const std::scoped_lock lock(g_mutex);
    g_state = State();
}

std::vector<std::string> calls() {
    const std::scoped_lock lock(g_mutex);
    return g_state.calls;
}

std::vector<std::string> take_calls() {
    const std::scoped_lock lock(g_mutex);
    return std::exchange(g_state.calls, {});
}

void set_result(const std::string& name, nuv_error result) {
    const std::scoped_lock lock(g_mutex);
    g_state.results[name] = result;
}

void on_call(void (*hook)(const std::string& call)) {
    const std::scoped_lock lock(g_mutex);
    g_state.hook = hook;
}

Values values() {
    const std::scoped_lock lock(g_mutex);
    return g_state.values;
}

void set_values(const Values& values) {
    const std::scoped_lock lock(g_mutex);
    g_state.values = values;
}

nuv_connect* core() {
    return &g_core;
}

nuv_connect_config config() {
    const std::scoped_lock lock(g_mutex);
    return g_state.config;
}

nuv_log_delegate log_delegate() {
    const std::scoped_lock lock(g_mutex);
    return g_state.log_delegate;
}

}  // namespace fake_sdk

using namespace fake_sdk;

nuv_connect* nuv_connect_create(uv_loop_t*, nuv_connect_config config, nuv_error* error) {
    *error = record("create", config.device_name);
    const std::scoped_lock lock(g_mutex);
    g_state.config = config;
    return *error == NUV_ERROR_OK ? &g_core : nullptr;
}

void nuv_connect_free(nuv_connect*) {
    record("free");
}

const char* nuv_connect_get_sdk_version() {
    const std::scoped_lock lock(g_mutex);
    return g_state.values.version;
}

nuv_error nuv_connect_set_log_delegate(nuv_connect*, nuv_log_delegate delegate) {
    const std::scoped_lock lock(g_mutex);
    g_state.log_delegate = delegate;
    return NUV_ERROR_OK;
}

nuv_error nuv_connect_connect(nuv_connect*, const char* session_id, const char* api_endpoint,
                              const char* api_jwt, uint64_t api_exp, const char* nconnect_endpoint,
                              const char* nconnect_jwt, uint64_t nconnect_exp, bool become_active) {
    return record("connect", session_id, api_endpoint, api_jwt, api_exp, nconnect_endpoint,
                  nconnect_jwt, nconnect_exp, become_active);
}

// The calls without an argument, and the queries.
#define NUV_RECORDED(name)                       \
    nuv_error nuv_connect_##name(nuv_connect*) { \
        return record(#name);                    \
    }
#define NUV_ANSWERED(name, value)                                              \
    nuv_error nuv_connect_##name(nuv_connect*, decltype(Values::value)* out) { \
        return answer(#name, out, &Values::value);                             \
    }
NUV_RECORDED(pause_playback)
NUV_RECORDED(resume_playback)
NUV_RECORDED(stop_playback)
NUV_RECORDED(next_track)
NUV_RECORDED(previous_track)
NUV_RECORDED(deactivate_and_disconnect_renderer)
NUV_RECORDED(notify_playback_paused)
NUV_RECORDED(notify_playback_resumed)
NUV_RECORDED(notify_playback_stopped)
NUV_RECORDED(notify_playback_error)
NUV_ANSWERED(get_session_id, session_id)
NUV_ANSWERED(get_device_uuid, uuid)
NUV_ANSWERED(get_volume, volume)
NUV_ANSWERED(get_mute_state, muted)
NUV_ANSWERED(get_shuffle_mode, shuffle)
NUV_ANSWERED(get_loop_mode, loop_mode)
NUV_ANSWERED(get_renderer_active_state, active)
NUV_ANSWERED(get_playback_state, playback_state)
#undef NUV_RECORDED
#undef NUV_ANSWERED

nuv_error nuv_connect_set_volume(nuv_connect*, uint32_t volume) {
    return record("set_volume", volume);
}
nuv_error nuv_connect_set_mute_state(nuv_connect*, bool muted) {
    return record("set_mute_state", muted);
}
nuv_error nuv_connect_set_shuffle_mode(nuv_connect*, bool shuffle) {
    return record("set_shuffle_mode", shuffle);
}
nuv_error nuv_connect_set_loop_mode(nuv_connect*, nuv_loop_mode loop_mode) {
    return record("set_loop_mode", static_cast<int>(loop_mode));
}
nuv_error nuv_connect_seek_time(nuv_connect*, uint64_t position_ms) {
    return record("seek_time", position_ms);
}
nuv_error nuv_connect_set_device_name(nuv_connect*, const char* device_name) {
    return record("set_device_name", device_name);
}

nuv_error nuv_connect_get_stream_metadata(nuv_connect*, uint64_t, nuv_stream_metadata* metadata) {
    return answer("get_stream_metadata", metadata, &Values::metadata);
}

nuv_error nuv_connect_notify_playback_initiated(nuv_connect*, nuv_audio_format format) {
    return record("notify_playback_initiated", format.sample_rate, format.channel_count,
                  static_cast<int>(format.sample_format));
}
nuv_error nuv_connect_notify_playback_finished(nuv_connect*, bool no_next_track) {
    return record("notify_playback_finished", no_next_track);
}
nuv_error nuv_connect_resume_audio_delivery(nuv_connect*, uint64_t stream_id) {
    return record("resume_audio_delivery", stream_id);
}

const char* nuv_error_to_string(nuv_error error) {
    return error == NUV_ERROR_OK ? "ok" : "fake error";
}
const char* nuv_audio_quality_to_string(nuv_audio_quality quality) {
    return quality == NUV_AUDIO_QUALITY_CD ? "CD" : "HI_RES";
}
const char* nuv_device_type_to_string(nuv_device_type) {
    return "SPEAKER";
}
const char* nuv_loop_mode_to_string(nuv_loop_mode) {
    return "OFF";
}
const char* nuv_playback_state_to_string(nuv_playback_state state) {
    return state == NUV_PLAYBACK_STATE_PLAYING ? "PLAYING" : "NOT PLAYING";
}
size_t nuv_audio_sample_format_size(nuv_audio_sample_format format) {
    return format == NUV_AUDIO_SAMPLE_FORMAT_16_BIT ? 2 : 4;
}
