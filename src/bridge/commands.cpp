// NuvioConnect: what each command means.
#include <syslog.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <limits>
#include <optional>
#include <unordered_map>

#include "bridge/bridge_private.h"

namespace android {
namespace {

using namespace std::chrono_literals;

// A rename comes while the platform is still storing the name.
constexpr auto kRenameDelay = 500ms;

// A decimal int: leading blanks and a sign allowed, what follows the digits ignored.
std::optional<int> parseInt(const std::string& text) {
    char* end = nullptr;
    errno = 0;
    const long value = std::strtol(text.c_str(), &end, 10);
    const bool fits = errno == 0 && value >= std::numeric_limits<int>::min() &&
                      value <= std::numeric_limits<int>::max();
    if (end == text.c_str() || !fits) {
        return std::nullopt;
    }
    return static_cast<int>(value);
}

}  // namespace

// A command recognised by a text anywhere in it, tried in this order.
struct NuvioConnect::ArgumentCommand {
    std::string_view text;
    bool (NuvioConnect::*take)(const std::string& argument);  // null: no argument
    Action action;
};

NuvioConnect::Action NuvioConnect::parseEvent(const std::string& command) {
    static constexpr std::array kArgumentCommands = {
        ArgumentCommand{"SEEK:", &NuvioConnect::takeSeekPosition, &NuvioConnect::seek},
        ArgumentCommand{"VOLUME:", &NuvioConnect::takeVolume, &NuvioConnect::setVolume},
        ArgumentCommand{"DEVICENAME:", &NuvioConnect::takeDeviceName, &NuvioConnect::setDeviceName},
        ArgumentCommand{"STANDBYON", nullptr, &NuvioConnect::standBy},
        ArgumentCommand{"DISCONNECTSOURCE", nullptr, &NuvioConnect::disconnectSource},
    };
    for (const ArgumentCommand& row : kArgumentCommands) {
        if (command.find(row.text) == std::string::npos) {
            continue;
        }
        const bool complete =
            row.take == nullptr || (this->*row.take)(command.substr(command.find(':') + 1));
        return complete ? row.action : nullptr;
    }
    return findCommand(command);
}

NuvioConnect::Action NuvioConnect::findCommand(std::string_view command) {
    using Self = NuvioConnect;
    static const std::unordered_map<std::string_view, Action> kCommands = {
        {"PAUSE", &Self::control<nuv_connect_pause_playback>},
        {"RESUME", &Self::control<nuv_connect_resume_playback>},
        {"STOP", &Self::control<nuv_connect_stop_playback>},
        {"NEXT", &Self::control<nuv_connect_next_track>},
        {"PREV", &Self::control<nuv_connect_previous_track>},
        {"MUTE", &Self::control<nuv_connect_set_mute_state, true>},
        {"UNMUTE", &Self::control<nuv_connect_set_mute_state, false>},
        // The device's own mute state, as its message store words it.
        {"MUTE:MUTE", &Self::control<nuv_connect_set_mute_state, true>},
        {"MUTE:UNMUTE", &Self::control<nuv_connect_set_mute_state, false>},
        {"SHUFFLE:ON", &Self::control<nuv_connect_set_shuffle_mode, true>},
        {"SHUFFLE:OFF", &Self::control<nuv_connect_set_shuffle_mode, false>},
        {"REPEAT:OFF", &Self::control<nuv_connect_set_loop_mode, NUV_LOOP_MODE_OFF>},
        {"REPEAT:ONE", &Self::control<nuv_connect_set_loop_mode, NUV_LOOP_MODE_ONE>},
        {"REPEAT:ALL", &Self::control<nuv_connect_set_loop_mode, NUV_LOOP_MODE_ALL>},
        {"SEEK", &Self::seek},
        {"ONSOURCESWITCH", &Self::switchSource},
        {"SHUFFLE_REPEAT", &Self::handleShuffleRepeat},
        {"MUTE_STATE", &Self::handleMuteState},
        {"POST_PLAYSTATUS", &Self::handlePlaybackStatus},
        {"VOLUME_STATUS", &Self::handleVolumeStatus},
    };
    const auto found = kCommands.find(command);
    return found == kCommands.end() ? nullptr : found->second;
}

// ---- Arguments

bool NuvioConnect::takeSeekPosition(const std::string& argument) {
    const std::optional<int> position = parseInt(argument);
    m_seekPosition = static_cast<uint32_t>(position.value_or(static_cast<int>(m_seekPosition)));
    return position.has_value();
}

bool NuvioConnect::takeVolume(const std::string& argument) {
    const std::optional<int> volume = parseInt(argument);
    m_iNuvioVolume = volume.value_or(m_iNuvioVolume);
    return volume.has_value();
}

bool NuvioConnect::takeDeviceName(const std::string& argument) {
    m_newDeviceName = argument;
    return true;
}

// ---- Actions

nuv_error NuvioConnect::setVolume() {
    syslog(LOG_ERR, "NuvioConnect: m_iNuvioVolume = %d\n", m_iNuvioVolume);
    return nuv_connect_set_volume(m_core, static_cast<uint32_t>(m_iNuvioVolume));
}

nuv_error NuvioConnect::seek() {
    return isPlayingOrPaused() ? nuv_connect_seek_time(m_core, m_seekPosition) : NUV_ERROR_OK;
}

nuv_error NuvioConnect::setDeviceName() {
    syslog(LOG_ERR, "NuvioConnect: New device_name = %s\n", m_newDeviceName.c_str());
    std::puts("[DEVICENAME] Waiting 500ms before update");
    syslog(LOG_ERR, "NuvioConnect: [DEVICENAME] Waiting 500ms before update\n");
    if (!waitUnlessStopped(kRenameDelay)) {
        return NUV_ERROR_OK;
    }
    return nuv_connect_set_device_name(m_core, m_newDeviceName.c_str());
}

nuv_error NuvioConnect::switchSource() {
    m_sourceSwitched = true;
    const nuv_error result = nuv_connect_deactivate_and_disconnect_renderer(m_core);
    syslog(LOG_INFO, "NuvioConnect: ONSOURCESWITCH, Reset Metadata");
    resetMetadata();
    return result;
}

nuv_error NuvioConnect::disconnectSource() {
    const nuv_error result = nuv_connect_deactivate_and_disconnect_renderer(m_core);
    syslog(LOG_INFO, "NuvioConnect: DISCONNECTSOURCE, Reset Metadata");
    resetMetadata();
    return result;
}

nuv_error NuvioConnect::standBy() {
    syslog(LOG_ERR, "NuvioConnect: STANDBYON command received");
    const nuv_error result = nuv_connect_deactivate_and_disconnect_renderer(m_core);
    m_listener->DropSource();
    return result;
}

}  // namespace android
