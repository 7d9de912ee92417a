// The C interface over local_core::Core: checks arguments, answers with nuv_error.
#pragma GCC visibility push(default)
#include "sdk/nuvio_connect.h"
#pragma GCC visibility pop

#include <algorithm>
#include <ctime>
#include <exception>
#include <iterator>
#include <memory>

#include "local/core.h"

struct nuv_connect {
    nuv_connect(uv_loop_t* loop, const nuv_connect_config& config) : core(this, loop, config) {}
    local_core::Core core;
};

namespace {

using local_core::Control;
using local_core::kCloudClient;
using local_core::LogLevel;
using local_core::Player;
using local_core::Verb;

constexpr int32_t kInterfaceVersion = 1;
constexpr uint32_t kMaxVolume = 100;

bool is_complete(const nuv_audio_stream_delegate& delegate) {
    return delegate.started && delegate.data && delegate.metadata && delegate.finished &&
           delegate.seeked && delegate.dispose;
}

bool is_complete(const nuv_media_delegate& delegate) {
    return delegate.initiate_playback && delegate.pause_playback && delegate.resume_playback &&
           delegate.stop_playback && delegate.seek_in_progress && delegate.get_playback_position &&
           delegate.volume_changed && delegate.mute_state_changed &&
           delegate.playback_state_changed && delegate.maximum_audio_quality_changed &&
           delegate.playback_controls_changed && delegate.playback_actions_availability_changed;
}

bool is_complete(const nuv_connect_config& config) {
    const char* const texts[] = {config.device_name, config.manufacturer,  config.model,
                                 config.hardware_id, config.serial_number, config.app_id,
                                 config.app_secret};
    return config.interface_version == kInterfaceVersion && config.renderer_count == 1 &&
           std::none_of(std::begin(texts), std::end(texts),
                        [](const char* text) { return text == nullptr; }) &&
           config.advertising_delegate.start && config.advertising_delegate.stop &&
           config.local_config_server_delegate.start && config.local_config_server_delegate.stop &&
           is_complete(config.audio_stream_delegate) && is_complete(config.media_delegate);
}

bool is_over(uint64_t expiry) {
    // A clock of 32 bits is negative from 2038 on, and tells nothing then.
    const std::time_t now = std::time(nullptr);
    return expiry != 0 && now > 0 && expiry < static_cast<uint64_t>(now);
}

nuv_error command(nuv_connect* core, Verb verb, uint64_t position_ms = 0) {
    return core != nullptr ? core->core.control().command(verb, position_ms)
                           : NUV_ERROR_INVALID_ARGUMENT;
}

template <typename... Arguments>
nuv_error notify(nuv_connect* core, nuv_error (Player::*notification)(Arguments...),
                 Arguments... arguments) {
    return core != nullptr ? core->core.notify(notification, arguments...)
                           : NUV_ERROR_INVALID_ARGUMENT;
}

// Hands out one value that `read` takes from the control.
template <typename Value, typename Read>
nuv_error query(nuv_connect* core, Value* out, Read read) {
    if (core == nullptr || out == nullptr) {
        return NUV_ERROR_INVALID_ARGUMENT;
    }
    *out = read(core->core.control());
    return NUV_ERROR_OK;
}

// Sets one value of the control, if it is one that may be set.
template <typename Value>
nuv_error set(nuv_connect* core, void (Control::*setter)(Value), Value value,
              bool is_valid = true) {
    if (core == nullptr || !is_valid) {
        return NUV_ERROR_INVALID_ARGUMENT;
    }
    (core->core.control().*setter)(value);
    return NUV_ERROR_OK;
}

// The text at the value's place in a table.
template <size_t N>
const char* text_of(const char* const (&texts)[N], int value) {
    return value >= 0 && static_cast<size_t>(value) < N ? texts[value] : "unknown";
}

}  // namespace

extern "C" {

// ---- Life -------------------------------------------------------------------------------------

nuv_connect* nuv_connect_create(uv_loop_t* loop, nuv_connect_config config, nuv_error* error) {
    nuv_error ignored = NUV_ERROR_OK;
    nuv_error& result = error != nullptr ? *error : ignored;
    if (loop == nullptr || !is_complete(config)) {
        result = NUV_ERROR_INVALID_ARGUMENT;
        return nullptr;
    }
    try {
        auto core = std::make_unique<nuv_connect>(loop, config);
        result = NUV_ERROR_OK;
        return core.release();
    } catch (const std::exception&) {
        result = NUV_ERROR_INTERNAL;
        return nullptr;
    }
}

void nuv_connect_free(nuv_connect* core) {
    delete core;
}

const char* nuv_connect_get_sdk_version(void) {
    return NUV_SDK_VERSION;
}

nuv_error nuv_connect_set_log_delegate(nuv_connect* core, nuv_log_delegate delegate) {
    if (core == nullptr) {
        return NUV_ERROR_INVALID_ARGUMENT;
    }
    core->core.logger().set_delegate(delegate);
    return NUV_ERROR_OK;
}

// ---- Session ----------------------------------------------------------------------------------

nuv_error nuv_connect_connect(nuv_connect* core, const char* session_id, const char* api_endpoint,
                              const char* api_jwt, uint64_t api_exp, const char* nconnect_endpoint,
                              const char* nconnect_jwt, uint64_t nconnect_exp, bool become_active) {
    const void* const required[] = {core,    session_id,        api_endpoint,
                                    api_jwt, nconnect_endpoint, nconnect_jwt};
    if (std::find(std::begin(required), std::end(required), nullptr) != std::end(required)) {
        return NUV_ERROR_INVALID_ARGUMENT;
    }
    if (is_over(api_exp) || is_over(nconnect_exp)) {
        return NUV_ERROR_TOKEN_EXPIRED;
    }
    try {
        return core->core.connect(session_id, api_endpoint, api_jwt,
                                  {nconnect_endpoint, nconnect_jwt, nconnect_exp}, become_active);
    } catch (const std::exception& failure) {
        core->core.logger().write(LogLevel::error, kCloudClient, "Can't join the session: %s",
                                  failure.what());
        return NUV_ERROR_INTERNAL;
    }
}

nuv_error nuv_connect_get_session_id(nuv_connect* core, const char** session_id) {
    if (core == nullptr || session_id == nullptr) {
        return NUV_ERROR_INVALID_ARGUMENT;
    }
    // Asked once: a control call on another thread may end the session in between.
    if (const char* const id = core->core.session_id()) {
        *session_id = id;
    }
    return NUV_ERROR_OK;
}

nuv_error nuv_connect_get_device_uuid(nuv_connect* core, const char** uuid) {
    if (core == nullptr || uuid == nullptr) {
        return NUV_ERROR_INVALID_ARGUMENT;
    }
    *uuid = core->core.uuid().c_str();
    return NUV_ERROR_OK;
}

// ---- Control ----------------------------------------------------------------------------------

nuv_error nuv_connect_pause_playback(nuv_connect* core) {
    return command(core, Verb::pause);
}
nuv_error nuv_connect_resume_playback(nuv_connect* core) {
    return command(core, Verb::resume);
}
nuv_error nuv_connect_stop_playback(nuv_connect* core) {
    return command(core, Verb::stop);
}
nuv_error nuv_connect_next_track(nuv_connect* core) {
    return command(core, Verb::next);
}
nuv_error nuv_connect_previous_track(nuv_connect* core) {
    return command(core, Verb::previous);
}
nuv_error nuv_connect_deactivate_and_disconnect_renderer(nuv_connect* core) {
    return command(core, Verb::deactivate);
}
nuv_error nuv_connect_seek_time(nuv_connect* core, uint64_t position_ms) {
    return command(core, Verb::seek, position_ms);
}

nuv_error nuv_connect_set_volume(nuv_connect* core, uint32_t volume) {
    return set(core, &Control::set_device_volume, volume, volume <= kMaxVolume);
}
nuv_error nuv_connect_set_mute_state(nuv_connect* core, bool muted) {
    return set(core, &Control::set_device_muted, muted);
}
nuv_error nuv_connect_set_shuffle_mode(nuv_connect* core, bool shuffle) {
    return set(core, &Control::set_shuffle, shuffle);
}
nuv_error nuv_connect_set_loop_mode(nuv_connect* core, nuv_loop_mode loop_mode) {
    return set(core, &Control::set_loop_mode, loop_mode,
               static_cast<unsigned>(loop_mode) <= NUV_LOOP_MODE_ALL);
}
nuv_error nuv_connect_set_device_name(nuv_connect* core, const char* device_name) {
    return set(core, &Control::set_device_name, device_name,
               device_name != nullptr && *device_name != '\0');
}

// ---- Queries ----------------------------------------------------------------------------------

nuv_error nuv_connect_get_volume(nuv_connect* core, uint32_t* volume) {
    return query(core, volume, [](auto& control) { return control.tell_device_volume(); });
}
nuv_error nuv_connect_get_mute_state(nuv_connect* core, bool* muted) {
    return query(core, muted, [](auto& control) { return control.tell_device_muted(); });
}
nuv_error nuv_connect_get_shuffle_mode(nuv_connect* core, bool* shuffle) {
    return query(core, shuffle, [](const auto& control) { return control.settings().shuffle; });
}
nuv_error nuv_connect_get_loop_mode(nuv_connect* core, nuv_loop_mode* loop_mode) {
    return query(core, loop_mode, [](const auto& control) { return control.settings().loop_mode; });
}
nuv_error nuv_connect_get_renderer_active_state(nuv_connect* core, bool* active) {
    return query(core, active, [](const auto& control) { return control.view().active; });
}
nuv_error nuv_connect_get_playback_state(nuv_connect* core, nuv_playback_state* state) {
    return query(core, state, [](const auto& control) { return control.view().state; });
}

nuv_error nuv_connect_get_stream_metadata(nuv_connect* core, uint64_t stream_id,
                                          nuv_stream_metadata* metadata) {
    if (core == nullptr || metadata == nullptr) {
        return NUV_ERROR_INVALID_ARGUMENT;
    }
    return core->core.control().get_texts(stream_id, metadata);
}

// ---- Notifications ----------------------------------------------------------------------------

nuv_error nuv_connect_notify_playback_initiated(nuv_connect* core, nuv_audio_format) {
    return notify(core, &Player::playback_initiated);
}
nuv_error nuv_connect_notify_playback_paused(nuv_connect* core) {
    return notify(core, &Player::playback_paused);
}
nuv_error nuv_connect_notify_playback_resumed(nuv_connect* core) {
    return notify(core, &Player::playback_resumed);
}
nuv_error nuv_connect_notify_playback_stopped(nuv_connect* core) {
    return notify(core, &Player::playback_stopped);
}
nuv_error nuv_connect_notify_playback_error(nuv_connect* core) {
    return notify(core, &Player::playback_error);
}
nuv_error nuv_connect_notify_playback_finished(nuv_connect* core, bool no_next_track) {
    return notify(core, &Player::playback_finished, no_next_track);
}
nuv_error nuv_connect_resume_audio_delivery(nuv_connect* core, uint64_t stream_id) {
    return notify(core, &Player::resume_delivery, stream_id);
}

// ---- Texts ------------------------------------------------------------------------------------

const char* nuv_error_to_string(nuv_error error) {
    static constexpr const char* kTexts[] = {"OK",
                                             "INVALID_ARGUMENT",
                                             "INVALID_STATE",
                                             "NOT_FOUND",
                                             "TOKEN_EXPIRED",
                                             "EMPTY_SESSION",
                                             "NOT_CONNECTED",
                                             "INTERNAL"};
    return text_of(kTexts, error);
}

const char* nuv_audio_quality_to_string(nuv_audio_quality quality) {
    static constexpr const char* kTexts[] = {"CD", "HI_RES_LEVEL_1", "HI_RES_LEVEL_2",
                                             "HI_RES_LEVEL_3"};
    return text_of(kTexts, quality);
}

const char* nuv_device_type_to_string(nuv_device_type type) {
    static constexpr const char* kTexts[] = {"SPEAKER", "SOUNDBAR", "RECEIVER", "STREAMER"};
    return text_of(kTexts, type);
}

const char* nuv_loop_mode_to_string(nuv_loop_mode loop_mode) {
    static constexpr const char* kTexts[] = {"OFF", "ONE", "ALL"};
    return text_of(kTexts, loop_mode);
}

const char* nuv_playback_state_to_string(nuv_playback_state state) {
    static constexpr const char* kTexts[] = {"STOPPED", "PLAYING", "PAUSED"};
    return text_of(kTexts, state);
}

size_t nuv_audio_sample_format_size(nuv_audio_sample_format format) {
    static constexpr size_t kSizes[] = {2, 4};
    const auto index = static_cast<size_t>(format);
    return index < std::size(kSizes) ? kSizes[index] : 0;
}

}  // extern "C"
