#include "local/core.h"

#include <memory>
#include <utility>

#include "common/utf8.h"
#include "local/content.h"
#include "local/device_uuid.h"
#include "local/display_text.h"
#include "local/track_decoder.h"

namespace local_core {

namespace {

constexpr char kServiceName[] = "_nuvio-connect._tcp";
constexpr size_t kMaxInstanceNameBytes = 63;  // a DNS label

}  // namespace

Core::Core(nuv_connect* handle, uv_loop_t* loop, const nuv_connect_config& config)
    : m_handle(handle),
      m_config(config),
      m_uuid(
          device_uuid(config.manufacturer, config.model, config.serial_number, config.hardware_id)),
      m_wakeup(loop, [this] { pass(); }),
      m_control(config.device_name, [this] { m_wakeup.wake(); }),
      m_player({handle, config.audio_stream_delegate, config.media_delegate}, m_control, m_logger,
               [this] { m_wakeup.wake(); }),
      m_settings(m_control.settings()) {
    m_wakeup.run_each_pass();
}

const char* Core::session_id() const {
    return m_control.connected() ? m_session_id.c_str() : nullptr;
}

nuv_error Core::connect(const char* session_id, const char* endpoint, bool become_active) {
    std::vector<Track> tracks = find_tracks(endpoint, m_logger);
    if (tracks.empty()) {
        return NUV_ERROR_EMPTY_SESSION;
    }
    const PlaybackSettings settings = m_control.settings();
    auto session = std::make_unique<Session>(session_id, std::move(tracks), settings.loop_mode,
                                             settings.shuffle);
    if (!probe(*session)) {
        return NUV_ERROR_EMPTY_SESSION;
    }
    m_logger.write(LogLevel::info, kCloudClient, "Joining session %s",
                   display_text(session_id).c_str());
    m_session_id = session_id;
    m_control.connect(std::move(session), become_active);
    return NUV_ERROR_OK;
}

// Moves the session to its first track that can be played; false when there is none. When many
// can't be, the rest is left to the decoding thread, so that the loop's thread is not held up.
bool Core::probe(Session& session) const {
    for (size_t probes = 0; probes < kMaxProbes; ++probes) {
        const std::string& path = session.track(session.current()).path;
        std::string error;
        if (TrackDecoder::open(path, &error)) {
            return true;
        }
        m_logger.write(LogLevel::warning, kContentFetcher, "Skipping %s: %s",
                       display_text(path).c_str(), error.c_str());
        session.mark_unplayable(session.current());
        if (!session.next()) {
            return false;
        }
        session.move_to(*session.next());
    }
    return true;
}

void Core::pass() {
    m_wakeup.rest();  // before the delegates: what the renderer answers from inside one arms it
    take_requests();
    bool more = advertise();
    more |= report_player();
    more |= report_settings();
    // What a step has changed is reported before the next step is taken.
    more |= m_player.advance() || m_player.deliver();
    if (more) {
        m_wakeup.run_each_pass();
    }
}

void Core::take_requests() {
    if (!m_control.take_attention()) {
        return;
    }
    m_settings = m_control.settings();
    m_player.set_modes(m_settings.loop_mode, m_settings.shuffle);
    for (Command& command : m_control.take_commands()) {
        m_player.apply(std::move(command));
        m_view_noted = true;
    }
}

// True when a delegate was called; the same below.
bool Core::advertise() {
    const nuv_advertising_delegate& advertising = m_config.advertising_delegate;
    if (m_services_started && m_advertised_name == m_settings.device_name) {
        return false;
    }
    if (!std::exchange(m_services_started, true)) {
        const auto& server = m_config.local_config_server_delegate;
        server.start(m_handle, server.context);
    } else {
        advertising.stop(m_handle, advertising.context);
    }
    m_advertised_name = m_settings.device_name;
    advertising.start(
        m_handle, std::string(nuvio::beginning(m_advertised_name, kMaxInstanceNameBytes)).c_str(),
        kServiceName, advertising.context);
    return true;
}

bool Core::report_player() {
    const PlayerView view = m_player.view();
    const bool begun = m_player.take_fresh_start();
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
    if (m_settings.volume_known && m_reported.volume != m_settings.volume) {
        m_reported.volume = m_settings.volume;
        media.volume_changed(m_handle, m_settings.volume, media.context);
        progress = true;
    }
    if (m_settings.mute_known && m_reported.muted != m_settings.muted) {
        m_reported.muted = m_settings.muted;
        media.mute_state_changed(m_handle, m_settings.muted, media.context);
        progress = true;
    }
    return progress;
}

}  // namespace local_core
