#include "device/source_switch.h"

#include <utility>

#include "platform/Kora.h"

namespace nuvio::host {

bool SourceSwitch::request(const Listener& listener, int source) {
    Listener previous;  // let go of without the lock
    const std::lock_guard lock(m_mutex);
    previous = std::exchange(m_listener, listener);
    m_now_playing.set_has_source(listener != nullptr);
    if (std::exchange(m_refuse_next, false) || listener == nullptr) {
        return false;
    }
    set_owner(source);
    return true;
}

void SourceSwitch::release(const Listener& listener) {
    Listener previous;  // let go of without the lock
    const std::lock_guard lock(m_mutex);
    if (!(m_listener == listener)) {
        return;
    }
    std::swap(previous, m_listener);
    m_now_playing.set_has_source(false);
    m_now_playing.set_status(android::PLAY_STATE_STOPPED);
    if (owns_output()) {
        set_owner(0);
    }
}

bool SourceSwitch::send_command(const std::string& command) {
    const std::lock_guard lock(m_mutex);
    return notify([command](android::BnSourceSwitchListener& listener) {
        listener.OnSourceEvent(command.c_str());
    });
}

bool SourceSwitch::send_volume(int percent) {
    const std::lock_guard lock(m_mutex);
    return notify(
        [text = std::to_string(percent)](android::BnSourceSwitchListener& listener) {
            listener.OnVolumeChangeEvent(text.c_str());
        },
        Waiting::latest);
}

bool SourceSwitch::has_output() {
    const std::lock_guard lock(m_mutex);
    return m_listener != nullptr && owns_output();
}

void SourceSwitch::take_output(int source) {
    const std::lock_guard lock(m_mutex);
    const bool taken_away = owns_output();
    set_owner(source);
    if (taken_away) {
        notify([](android::BnSourceSwitchListener& listener) { listener.OnSourceSwitchEvent(); },
               Waiting::certain);
    }
}

void SourceSwitch::give_back_output() {
    const std::lock_guard lock(m_mutex);
    if (!owns_output()) {
        set_owner(0);
    }
}

void SourceSwitch::refuse_next_request() {
    const std::lock_guard lock(m_mutex);
    m_refuse_next = true;
}

bool SourceSwitch::notify(Notification notification, Waiting waiting) {
    if (m_listener == nullptr) {
        return false;
    }
    m_pool.post(
        Channel::source_switch,
        [listener = m_listener, notification = std::move(notification)] {
            notification(*listener);
        },
        waiting);
    return true;
}

bool SourceSwitch::owns_output() const {
    return m_messages.read_number(android::KORA_CURRENT_SOURCE, 0) ==
           android::SOURCE_TYPE_NUVIO_CONNECT;
}

void SourceSwitch::set_owner(int source) {
    m_messages.write(android::KORA_CURRENT_SOURCE, std::to_string(source));
    m_now_playing.set_has_output(owns_output());
}

}  // namespace nuvio::host
