#include "fakes/fake_sdk.h"

#include <mutex>
#include <sstream>
#include <utility>

#include "fakes/echo.h"
#include "fakes/locked.h"

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

fakes::Locked<State> state() {
    return {std::unique_lock(g_mutex), &g_state};
}

nuv_error result_of(const std::string& name) {
    const auto locked = state();
    const auto found = locked->results.find(name);
    return found == locked->results.end() ? NUV_ERROR_OK : found->second;
}

template <typename... Arguments>
nuv_error record(const std::string& name, const Arguments&... arguments) {
    std::ostringstream line;
    line << std::boolalpha << name;
    ((line << ' ' << arguments), ...);
    state()->calls.push_back(line.str());
    fakes::echo("-> sdk", line.str());
    if (const auto hook = state()->hook; hook != nullptr) {
        hook(line.str());
    }
    return result_of(name);
}

template <typename T>
nuv_error answer(const std::string& name, T* out, T Values::*value) {
    const nuv_error result = result_of(name);
    if (result == NUV_ERROR_OK) {
        *out = state()->values.*value;
    }
    return result;
}

}  // namespace

void reset() {
    *state().state = State();
}
std::vector<std::string> calls() {
    return state()->calls;
}
std::vector<std::string> take_calls() {
    return std::exchange(state()->calls, {});
}
void set_result(const std::string& name, nuv_error result) {
    state()->results[name] = result;
}
void on_call(void (*hook)(const std::string& call)) {
    state()->hook = hook;
}
void set_values(const Values& values) {
    state()->values = values;
}
nuv_connect* core() {
    return &g_core;
}
nuv_connect_config config() {
    return state()->config;
}
nuv_log_delegate log_delegate() {
    return state()->log_delegate;
}

}  // namespace fake_sdk

using namespace fake_sdk;

nuv_connect* nuv_connect_create(uv_loop_t*, nuv_connect_config config, nuv_error* error) {
    *error = record("create", config.device_name);
    state()->config = config;
    return *error == NUV_ERROR_OK ? &g_core : nullptr;
}
void nuv_connect_free(nuv_connect*) {
    record("free");
}
const char* nuv_connect_get_sdk_version() {
    return state()->values.version;
}
nuv_error nuv_connect_set_log_delegate(nuv_connect*, nuv_log_delegate delegate) {
    state()->log_delegate = delegate;
    return NUV_ERROR_OK;
}
nuv_error nuv_connect_connect(nuv_connect*, const char* session_id, const char* api_endpoint,
                              const char* api_jwt, uint64_t api_exp, const char* nconnect_endpoint,
                              const char* nconnect_jwt, uint64_t nconnect_exp, bool become_active) {
    return record("connect", session_id, api_endpoint, api_jwt, api_exp, nconnect_endpoint,
                  nconnect_jwt, nconnect_exp, become_active);
}
nuv_error nuv_connect_notify_playback_initiated(nuv_connect*, nuv_audio_format format) {
    return record("notify_playback_initiated", format.sample_rate, format.channel_count,
                  static_cast<int>(format.sample_format));
}
nuv_error nuv_connect_get_stream_metadata(nuv_connect*, uint64_t, nuv_stream_metadata* metadata) {
    return answer("get_stream_metadata", metadata, &Values::metadata);
}

// The calls without an argument, with one, and the queries.
#define NUV_RECORDED(name)                       \
    nuv_error nuv_connect_##name(nuv_connect*) { \
        return record(#name);                    \
    }
#define NUV_RECORDED_WITH(name, type)                     \
    nuv_error nuv_connect_##name(nuv_connect*, type as) { \
        return record(#name, as);                         \
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
NUV_RECORDED_WITH(notify_playback_finished, bool)
NUV_RECORDED_WITH(resume_audio_delivery, uint64_t)
NUV_RECORDED_WITH(set_volume, uint32_t)
NUV_RECORDED_WITH(set_mute_state, bool)
NUV_RECORDED_WITH(set_shuffle_mode, bool)
NUV_RECORDED_WITH(set_loop_mode, nuv_loop_mode)
NUV_RECORDED_WITH(seek_time, uint64_t)
NUV_RECORDED_WITH(set_device_name, const char*)
NUV_ANSWERED(get_session_id, session_id)
NUV_ANSWERED(get_device_uuid, uuid)
NUV_ANSWERED(get_volume, volume)
NUV_ANSWERED(get_mute_state, muted)
NUV_ANSWERED(get_shuffle_mode, shuffle)
NUV_ANSWERED(get_loop_mode, loop_mode)
NUV_ANSWERED(get_renderer_active_state, active)
NUV_ANSWERED(get_playback_state, playback_state)

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
