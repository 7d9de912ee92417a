#include "local/core.h"

#include <algorithm>
#include <memory>
#include <string_view>
#include <utility>

#include "common/sound_note.h"
#include "common/utf8.h"
#include "local/base/files.h"
#include "local/device_uuid.h"
#include "local/network/remote_settings.h"
#include "local/texts/display_text.h"
#include "local/track/content.h"

namespace local_core {

namespace {

constexpr char kServiceName[] = "_nuvio-connect._tcp";
constexpr size_t kMaxSessionIdBytes = 256;
constexpr size_t kMaxInstanceNameBytes = 63;  // a DNS label

HelloMessage describe(const nuv_connect_config& config, const std::string& uuid) {
    HelloMessage device;
    device.uuid = uuid;
    device.manufacturer = config.manufacturer;
    device.model = config.model;
    device.device_type = nuv_device_type_to_string(config.device_type);
    device.quality = nuv_audio_quality_to_string(config.maximum_audio_quality);
    device.sdk_version = nuv_connect_get_sdk_version();
    return device;
}

}  // namespace

Core::Core(nuv_connect* handle, uv_loop_t* loop, const nuv_connect_config& config)
    : m_handle(handle),
      m_config(config),
      m_uuid(device_uuid()),
      m_wakeup(loop, [this] { pass(); }),
      m_local_server(loop, *m_logger, [this] { m_wakeup.run_each_pass(); }),
      m_control(config.device_name, [this] { m_wakeup.wake(); }),
      m_preparer([this] { m_wakeup.wake(); }, output_of(config.maximum_audio_quality), m_logger),
      m_player({handle, config.audio_stream_delegate, config.media_delegate,
                output_of(config.maximum_audio_quality)},
               m_control, m_logger, [this] { m_wakeup.wake(); }),
      m_remote(loop, describe(config, m_uuid), m_control, m_player, m_logger,
               [this] { m_wakeup.wake(); }),
      m_settings(m_control.settings()) {
    // Now: later another thread might change the environment.
    music_folders();
    remote_request_defaults();
    m_wakeup.run_each_pass();
}

const char* Core::session_id() const {
    return m_control.connected() ? m_session_id.c_str() : nullptr;
}

nuv_error Core::connect(const char* session_id, const char* endpoint, const char* token,
                        RemoteOffer remote, bool become_active) {
    const std::string_view id(session_id);
    if (id.size() > kMaxSessionIdBytes || !nuvio::is_utf8(id)) {
        return NUV_ERROR_INVALID_ARGUMENT;
    }
    if (!is_findable(endpoint)) {
        m_logger->write(LogLevel::error, kContentFetcher,
                        "%s: neither on this machine nor on the web",
                        display_location(endpoint).c_str());
        return NUV_ERROR_EMPTY_SESSION;
    }
    const auto now = std::chrono::steady_clock::now();
    if (now - m_recent_sessions.front() < std::chrono::seconds(1)) {
        m_logger->write(LogLevel::warning, kCloudClient, "Too many sessions in a second");
        return NUV_ERROR_INVALID_STATE;
    }
    const uint64_t stops = m_control.stop_count();
    if (!m_preparer.begin({session_id, endpoint, token, become_active, std::move(remote)})) {
        m_logger->write(LogLevel::warning, kCloudClient,
                        "Too many sessions still wait for their files");
        return NUV_ERROR_INVALID_STATE;
    }
    m_stops_before_session = stops;
    std::shift_left(m_recent_sessions.begin(), m_recent_sessions.end(), 1);
    m_recent_sessions.back() = now;
    return NUV_ERROR_OK;
}

// What was playing goes on until here, and beyond where there is nothing to play. A stop meanwhile
// is what was wanted last: the session waits then.
void Core::join_prepared_session() {
    auto prepared = m_preparer.take();
    if (!prepared) {
        return;
    }
    SessionRequest& request = prepared->request;
    if (prepared->tracks.empty()) {
        m_logger->write(
            LogLevel::warning, kCloudClient, "Not joining session %s: nothing to play in %s",
            display_text(request.id).c_str(), display_location(request.endpoint).c_str());
        m_remote.decline(request.remote,
                         prepared->failure.empty() ? "nothing to play" : prepared->failure);
        return;
    }
    const PlaybackSettings settings = m_control.settings();
    const auto start = start_of(request.endpoint, prepared->tracks.size());
    auto session = std::make_unique<Session>(request.id, std::move(prepared->tracks),
                                             settings.loop_mode, settings.shuffle, start);
    for (size_t track = 0; track < prepared->first; ++track) {
        session->mark_unplayable(track);
    }
    if (!start || *start < prepared->first) {
        session->rewind();
    }
    m_logger->write(LogLevel::info, kCloudClient, "Joining session %s",
                    display_text(request.id).c_str());
    m_session_id = request.id;
    const bool is_stopped = m_control.stop_count() != m_stops_before_session;
    m_control.connect(std::move(session), request.become_active && !is_stopped,
                      std::move(request.remote));
}

void Core::pass() {
    m_wakeup.rest();  // before the delegates: what the renderer answers from inside one arms it
    join_prepared_session();
    bool more = m_remote.take_command();
    take_requests();
    more |= advertise();
    more |= report_player();
    more |= report_settings();
    // What a step has changed is reported before the next step is taken.
    more |= m_player.advance() || m_player.deliver();
    tell_remote_control();
    tell_platform();
    auto next_time = m_player.next_time();
    if (more) {
        m_wakeup.run_each_pass();
    } else if (const auto next_look = m_player.give_up_hanging()) {
        next_time = std::min(next_time.value_or(*next_look), *next_look);
    }
    m_wakeup.run_at(next_time);
}

void Core::take_requests() {
    if (!m_control.take_attention()) {
        return;
    }
    for (Command& command : m_control.take_commands()) {
        m_view_noted = true;
        m_player.set_modes(command.loop_mode, command.shuffle);
        if (command.edit) {
            m_remote.answer_edit(m_player.edit(*command.edit));
            continue;
        }
        if (command.verb == Verb::connect) {
            m_remote.begin(command.session->id(), command.remote);
        } else if (command.verb == Verb::deactivate) {
            m_remote.end("left");
        }
        m_player.apply(std::move(command));
    }
    m_settings = m_control.settings();
    m_player.set_modes(m_settings.loop_mode, m_settings.shuffle);
}

// What the device has been told of is told its server.
void Core::tell_remote_control() {
    while (const std::optional<Failure> failure = m_player.take_failure()) {
        m_remote.tell_failure(*failure);
    }
    m_remote.tell(m_settings, m_published);
}

// True when a delegate was called; the same below. Nothing is announced that does not listen.
bool Core::advertise() {
    const nuv_advertising_delegate& advertising = m_config.advertising_delegate;
    if (!m_local_server.start(m_handle, m_config.local_config_server_delegate) ||
        (m_advertised && m_advertised_name == m_settings.device_name)) {
        return false;
    }
    if (std::exchange(m_advertised, true)) {
        advertising.stop(m_handle, advertising.context);
    }
    m_advertised_name = m_settings.device_name;
    advertising.start(
        m_handle, std::string(nuvio::beginning(m_advertised_name, kMaxInstanceNameBytes)).c_str(),
        kServiceName, advertising.context);
    return true;
}

void Core::tell_platform() {
    tell_of_sound();
    const bool is_over =
        std::exchange(m_noted_played, m_published.played_count) != m_published.played_count;
    const auto& played = m_player.last_played();
    if (nuvio_note_played != nullptr && is_over && played) {
        nuvio_note_played(played->title.c_str(), text_of(played->verdict));
    }
}

// What is heard may be another track, or have begun or ended.
void Core::tell_of_sound() {
    if (nuvio_note_sound == nullptr ||
        std::exchange(m_noted_stream, m_published.stream_id) == m_published.stream_id) {
        return;
    }
    const auto heard = m_player.heard();
    nuvio_note_sound(heard ? heard->info->conversion().c_str() : "");
}

bool Core::report_player() {
    const PlayerView view = m_player.view();
    const bool begun = m_player.take_fresh_start();
    const bool retitled = view.text_count != m_published.text_count;
    const bool changed = view != m_published;
    if (changed || std::exchange(m_view_noted, false)) {
        // Before the delegates, which may ask.
        m_control.publish(view);
        m_published = view;
    }
    if (!changed && !begun) {
        return false;
    }
    if (begun) {
        m_reported.volume.reset();  // the device may have listened to none before its first session
    }
    const nuv_media_delegate& media = m_config.media_delegate;
    const nuv_renderer_state_delegate& renderer = m_config.renderer_state_delegate;
    if (std::exchange(m_reported.active, view.active) != view.active &&
        renderer.active_state_changed != nullptr) {
        renderer.active_state_changed(m_handle, view.active, renderer.context);
    }
    if (std::exchange(m_reported.state, view.state) != view.state || begun) {
        media.playback_state_changed(m_handle, view.state, media.context);
    }
    if (std::exchange(m_reported.has_next, view.has_next) != view.has_next || begun) {
        media.playback_actions_availability_changed(m_handle, view.has_next, media.context);
    }
    if (retitled) {
        // With the modes the device shows the track anew, whatever its title.
        media.playback_controls_changed(m_handle, m_reported.loop_mode, m_reported.shuffle,
                                        media.context);
    }
    return true;
}

bool Core::report_settings() {
    const nuv_media_delegate& media = m_config.media_delegate;
    bool progress = false;
    const bool loop_changed =
        std::exchange(m_reported.loop_mode, m_settings.loop_mode) != m_settings.loop_mode;
    const bool shuffle_changed =
        std::exchange(m_reported.shuffle, m_settings.shuffle) != m_settings.shuffle;
    if (loop_changed || shuffle_changed) {
        media.playback_controls_changed(m_handle, m_settings.loop_mode, m_settings.shuffle,
                                        media.context);
        progress = true;
    }
    if (m_settings.volume && m_reported.volume != m_settings.volume) {
        m_reported.volume = m_settings.volume;
        media.volume_changed(m_handle, *m_settings.volume, media.context);
        progress = true;
    }
    if (m_settings.muted && m_reported.muted != m_settings.muted) {
        m_reported.muted = m_settings.muted;
        media.mute_state_changed(m_handle, *m_settings.muted, media.context);
        progress = true;
    }
    return progress;
}

}  // namespace local_core
