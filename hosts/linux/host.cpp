#include "host.h"

#include <syslog.h>
#include <systemd/sd-daemon.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <system_error>
#include <utility>

#include "base/text.h"
#include "common/number.h"
#include "configuration/settings_edit.h"
#include "platform/Environment.h"

namespace nuvio::host {

namespace {

// For notifications that run when the process is asked to end. One may be waiting for the bridge's
// queue, which is let go of when the bridge is taken down, after this.
constexpr std::chrono::milliseconds kStopPatience{200};

// For all of the end, the state's last save on a slow disk included; then SIGALRM ends the process.
// A service manager's patience is 10 s.
constexpr unsigned kEndLimitS = 8;

sigset_t end_signals() {
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGTERM);
    sigaddset(&signals, SIGINT);
    return signals;
}

// For whoever started it by hand; the system log has its line already. Nothing has begun that would
// have to be ended.
[[noreturn]] void give_up(const std::string& why) {
    std::fprintf(stderr, "nuvio-connect: %s\n", why.c_str());
    std::_Exit(EXIT_FAILURE);
}

}  // namespace

Host& Host::instance() {
    static Host* const host = [] {
        auto* made = new Host();
        std::atexit([] { instance().stop_for_good(); });
        return made;
    }();
    return *host;
}

Host::Host()
    : m_settings(Settings::load()),
      m_messages(m_pool),
      m_source_switch(m_pool, m_messages, m_now_playing),
      m_network(m_pool, m_settings.is_on(kHostAllowLoopback)),
      m_state(state_directory(m_settings)),
      m_controls(m_messages, m_now_playing, m_source_switch, m_network),
      m_device(m_settings, m_messages, m_now_playing, m_network),
      m_dispatcher(m_controls, m_device, m_network, m_state, m_settings),
      m_hooks(m_settings, m_device) {
    tell_core();
    tell_pipewire();
    use_alsa_configuration(m_settings.get(kALSAOutputDeviceName));
    preset_messages();
    m_now_playing.set_observer([this](uint32_t changes) { on_change(changes); });
    m_network.set_observer([this] { on_change(kDeviceNetwork); });
    m_messages.set_observer([this](int id, const std::string& text) { on_message(id, text); });
}

void Host::reload_settings() {
    m_settings = Settings::load();
    use_alsa_configuration(m_settings.get(kALSAOutputDeviceName));
}

// The core knows no settings file; nothing else runs yet that could read the environment.
void Host::tell_core() const {
    static constexpr struct {
        const char* key;
        const char* variable;
    } kVariables[] = {
        {kLocalMusicFolders, "NUVIO_MUSIC_FOLDERS"},
        {kLocalReadAhead, "NUVIO_READ_AHEAD_KIB"},
        {kLocalNetworkPatience, "NUVIO_NETWORK_PATIENCE_S"},
        {kLocalAuthorities, "NUVIO_NETWORK_AUTHORITIES"},
        {kLocalConvert, "NUVIO_CONVERT"},
        {kLocalLoudness, "NUVIO_LOUDNESS"},
        {kLocalVerify, "NUVIO_VERIFY"},
        {kOutputFS, "NUVIO_OUTPUT_RATES"},
    };
    for (const auto& row : kVariables) {
        if (const std::string& value = m_settings.get(row.key); !value.empty()) {
            setenv(row.variable, value.c_str(), 0);
        }
    }
    setenv("NUVIO_STATE_DIR", state_directory(m_settings).c_str(), 0);
}

// A pause drops what the output holds, but PipeWire plays on to the end of its graph's round, and a
// resume repeats that: with longer periods up to 46 ms, in rounds of 512 frames at most 12.
void Host::tell_pipewire() {
    setenv("PIPEWIRE_LATENCY", "512/44100", 0);
}

// The name and the volume stay unset until there is one: the service then falls back to the
// machine's name and leaves the mixer as it is.
void Host::preset_messages() {
    m_messages.preset(android::KORA_PLAYBACK_POSITION, "0");
    m_messages.preset(android::KORA_CURRENT_SOURCE, "0");
    m_messages.preset(android::KORA_PLAY_STATE, std::to_string(android::PLAY_STATE_STOPPED));
    m_messages.preset(android::KORA_MUTE, mute_text(false));
    if (const auto volume = to_percent(m_settings.get(kHostInitialVolume))) {
        m_messages.preset(android::KORA_VOLUME, std::to_string(*volume));
    }
    for (auto& [id, text] : m_state.load()) {
        m_messages.preset(id, text);
    }
}

void Host::on_message(int id, const std::string& text) {
    if (id == android::KORA_PLAYBACK_POSITION) {
        // Once a second while music plays: whoever shows it asks for it, as MPRIS has it. Only a
        // jump is signalled, by the player.
        m_now_playing.set_position(to_number<int64_t>(text).value_or(0));
        return;
    }
    if (m_state.set(id, text)) {
        m_dispatcher.save_soon();
    }
    if (const uint32_t changes = changes_of_message(id); changes != 0) {
        on_change(changes);
    }
    m_dispatcher.message_changed(id, text);
}

void Host::on_change(uint32_t changes) {
    m_dispatcher.changed(changes);
    m_hooks.changed(changes);
}

void Host::start() {
    const std::lock_guard lock(m_lifecycle);
    if (m_started || m_stopped) {
        return;
    }
    m_started = true;
    // Before there is a second thread, which would take them: they are for wait_for_end.
    const sigset_t signals = end_signals();
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    if (!m_settings.error().empty()) {
        give_up(m_settings.error());
    }
    try {
        m_pool.start();
        m_dispatcher.start();
        m_hooks.start();
    } catch (const std::system_error& error) {
        // A device that hears nothing is worse than none, which a service manager starts again.
        syslog(LOG_ERR, "nuvio-host: no thread to be had: %s", error.what());
        give_up(std::string("no thread to be had: ") + error.what());
    }
}

void Host::wait_for_end() {
    if (m_stopped) {
        return;
    }
    m_reported_ready = true;
    sd_notify(0, "READY=1");
    const sigset_t signals = end_signals();
    while (sigwaitinfo(&signals, nullptr) < 0 && errno == EINTR) {
    }
    alarm(kEndLimitS);
    stop();
}

void Host::stop() {
    const std::lock_guard lock(m_lifecycle);
    if (!m_stopped.exchange(true)) {
        report_stopping();
    }
    m_dispatcher.stop();
    if (!m_pool.stop(kStopPatience)) {
        syslog(LOG_INFO, "nuvio-host: a notification is still being taken at the end");
    }
}

// A service that ends before it was ready - it is switched off in the settings - has started all
// the same: to the service manager that is no failure, unless the exit status says so. In two
// messages, as of one that says both systemd takes only the second.
void Host::report_stopping() const {
    if (!m_reported_ready) {
        sd_notify(0, "READY=1");
    }
    sd_notify(0, "STOPPING=1");
}

// The service has ended by now, and what follows it, an amplifier, goes off behind it.
void Host::stop_for_good() {
    stop();
    m_hooks.stop();
    m_pool.join();
}

}  // namespace nuvio::host
