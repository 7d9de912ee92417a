#include "local/playback/control.h"

#include <algorithm>

namespace local_core {

Control::Control(std::string device_name, std::function<void()> wake) : m_wake(std::move(wake)) {
    m_settings.device_name = std::move(device_name);
}

nuv_error Control::check(Verb verb) const {
    if (!m_connected) {
        return NUV_ERROR_NOT_CONNECTED;
    }
    const bool stopped = m_view.wanted == NUV_PLAYBACK_STATE_STOPPED;
    switch (verb) {
        case Verb::pause:
        case Verb::stop:
        case Verb::seek:
            return stopped ? NUV_ERROR_INVALID_STATE : NUV_ERROR_OK;
        case Verb::next:
            return m_view.has_next ? NUV_ERROR_OK : NUV_ERROR_NOT_FOUND;
        case Verb::previous:
            // While something plays there is always its own beginning to go back to.
            return stopped && !m_view.has_previous ? NUV_ERROR_NOT_FOUND : NUV_ERROR_OK;
        default:
            return NUV_ERROR_OK;
    }
}

nuv_error Control::command(Verb verb, uint64_t position_ms) {
    Command command;
    command.verb = verb;
    command.position_ms = position_ms;
    return check_and_note(std::move(command));
}

nuv_error Control::edit(QueueEdit edit) {
    Command command;
    command.verb = edit.verb;
    command.edit = std::make_unique<QueueEdit>(std::move(edit));
    return check_and_note(std::move(command));
}

nuv_error Control::check_and_note(Command command) {
    {
        const std::lock_guard lock(m_mutex);
        const bool leaves = command.verb == Verb::deactivate;
        if (leaves && !m_connected) {
            return NUV_ERROR_OK;
        }
        const nuv_error error = check(command.verb);
        if (error != NUV_ERROR_OK) {
            return error;
        }
        if (m_commands.size() >= kMaxCommands && !leaves) {
            return NUV_ERROR_INVALID_STATE;
        }
        note(std::move(command));
    }
    call_attention();
    return NUV_ERROR_OK;
}

void Control::connect(std::unique_ptr<Session> session, bool become_active, RemoteOffer remote) {
    Command command;
    command.verb = Verb::connect;
    command.become_active = become_active;
    command.remote = std::move(remote);
    {
        const std::lock_guard lock(m_mutex);
        m_view.has_next = session->next().has_value();
        m_view.has_previous = session->previous().has_value();
        command.session = std::move(session);
        note(std::move(command));
    }
    call_attention();
}

// What the controller sees from now on, before the loop has carried the command out.
void Control::note(Command command) {
    switch (command.verb) {
        case Verb::pause:
            m_view.wanted = NUV_PLAYBACK_STATE_PAUSED;
            break;
        case Verb::resume:
            m_view.wanted = NUV_PLAYBACK_STATE_PLAYING;
            break;
        case Verb::stop:
            m_view.wanted = NUV_PLAYBACK_STATE_STOPPED;
            ++m_stop_count;
            break;
        case Verb::connect:
            m_connected = true;
            m_view.wanted =
                command.become_active ? NUV_PLAYBACK_STATE_PLAYING : NUV_PLAYBACK_STATE_STOPPED;
            break;
        case Verb::deactivate:
            m_connected = false;
            m_view.wanted = NUV_PLAYBACK_STATE_STOPPED;
            break;
        default:
            break;
    }
    const bool repeats_seek =
        command.verb == Verb::seek && !m_commands.empty() && m_commands.back().verb == Verb::seek;
    if (repeats_seek) {
        m_commands.pop_back();
    }
    command.loop_mode = m_settings.loop_mode;
    command.shuffle = m_settings.shuffle;
    m_commands.push_back(std::move(command));
}

template <typename Change>
void Control::change_settings(Change change) {
    {
        const std::lock_guard lock(m_mutex);
        change(m_settings);
    }
    call_attention();
}

void Control::set_device_name(const char* name) {
    change_settings([name](PlaybackSettings& settings) { settings.device_name = name; });
}

void Control::set_volume(uint32_t percent) {
    change_settings([percent](PlaybackSettings& settings) { settings.volume = percent; });
}

void Control::set_muted(bool muted) {
    change_settings([muted](PlaybackSettings& settings) { settings.muted = muted; });
}

template <typename Value>
void Control::set_by_device(Value value, EchoFilter<Value>& echo,
                            std::optional<Value> PlaybackSettings::*setting) {
    change_settings([&](PlaybackSettings& settings) {
        if (!echo.is_echo(value)) {
            settings.*setting = value;
        }
    });
}

template <typename Value>
Value Control::tell_device(Value assumed, EchoFilter<Value>& echo,
                           std::optional<Value> PlaybackSettings::*setting) {
    const std::lock_guard lock(m_mutex);
    const Value value = (m_settings.*setting).value_or(assumed);
    echo.device_asked(value);
    return value;
}

void Control::set_device_volume(uint32_t percent) {
    set_by_device(percent, m_volume_echo, &PlaybackSettings::volume);
}

void Control::set_device_muted(bool muted) {
    set_by_device(muted, m_muted_echo, &PlaybackSettings::muted);
}

uint32_t Control::tell_device_volume() {
    return tell_device(PlaybackSettings::kAssumedVolume, m_volume_echo, &PlaybackSettings::volume);
}

bool Control::tell_device_muted() {
    return tell_device(false, m_muted_echo, &PlaybackSettings::muted);
}

void Control::output_is_taken() {
    const std::lock_guard lock(m_mutex);
    m_volume_echo.output_is_taken(m_settings.volume);
    m_muted_echo.output_is_taken(m_settings.muted);
}

void Control::set_shuffle(bool shuffle) {
    change_settings([shuffle](PlaybackSettings& settings) { settings.shuffle = shuffle; });
}

void Control::set_loop_mode(nuv_loop_mode loop_mode) {
    change_settings([loop_mode](PlaybackSettings& settings) { settings.loop_mode = loop_mode; });
}

PlaybackSettings Control::settings() const {
    const std::lock_guard lock(m_mutex);
    return m_settings;
}

PlayerView Control::view() const {
    const std::lock_guard lock(m_mutex);
    return m_view;
}

bool Control::connected() const {
    const std::lock_guard lock(m_mutex);
    return m_connected;
}

uint64_t Control::stop_count() const {
    const std::lock_guard lock(m_mutex);
    return m_stop_count;
}

void Control::add_texts(uint64_t stream_id, const TrackTexts* texts) {
    const std::lock_guard lock(m_mutex);
    m_texts.emplace_back(stream_id, texts);
}

void Control::remove_texts(uint64_t stream_id) {
    const std::lock_guard lock(m_mutex);
    std::erase_if(m_texts, [stream_id](const auto& entry) { return entry.first == stream_id; });
}

nuv_error Control::get_texts(uint64_t stream_id, nuv_stream_metadata* metadata) const {
    const std::lock_guard lock(m_mutex);
    const auto entry = std::find_if(m_texts.begin(), m_texts.end(), [stream_id](const auto& known) {
        return known.first == stream_id;
    });
    if (entry == m_texts.end()) {
        return NUV_ERROR_NOT_FOUND;
    }
    *metadata = entry->second->view();
    return NUV_ERROR_OK;
}

std::vector<Command> Control::take_commands() {
    const std::lock_guard lock(m_mutex);
    return std::exchange(m_commands, {});
}

void Control::publish(const PlayerView& view) {
    const std::lock_guard lock(m_mutex);
    const PlayerView noted = std::exchange(m_view, view);
    if (!m_commands.empty()) {
        // Calls that came meanwhile have been answered by these.
        m_view.wanted = noted.wanted;
        m_view.has_next = noted.has_next;
        m_view.has_previous = noted.has_previous;
    }
}

void Control::call_attention() {
    // One wake-up is under way as long as the mark stands.
    if (!m_attention.exchange(true, std::memory_order_acq_rel)) {
        m_wake();
    }
}

}  // namespace local_core
