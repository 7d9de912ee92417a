#include "device/message_store.h"

#include <algorithm>
#include <cstdint>
#include <utility>

#include "common/number.h"

namespace nuvio::host {

namespace {

// Messages that ask for something rather than hold a value.
bool is_request(int id) {
    return id == android::KORA_SHUTDOWN_REQUEST || id == android::KORA_SHUTDOWN_REQUEST_SYSTEM;
}

// The device's own messages always find room.
bool is_own(int id) {
    return is_request(id) || id == android::KORA_VOLUME || id == android::KORA_DEVICE_NAME;
}

}  // namespace

void MessageStore::preset(int id, std::string text) {
    const std::lock_guard lock(m_mutex);
    m_messages.insert_or_assign(id, std::move(text));
}

bool MessageStore::read(int id, std::string& text) const {
    const std::lock_guard lock(m_mutex);
    const auto found = m_messages.find(id);
    text = found == m_messages.end() ? std::string() : found->second;
    return found != m_messages.end();
}

int MessageStore::read_number(int id, int fallback) const {
    std::string text;
    read(id, text);
    return to_number<int>(text).value_or(fallback);
}

bool MessageStore::write(int id, std::string_view text) {
    if (id < 0 || id > UINT16_MAX || text.size() > kMaxMessageBytes) {
        return false;
    }
    const std::lock_guard lock(m_mutex);
    const auto found = m_messages.find(id);
    if (found == m_messages.end() && m_messages.size() >= kMaxMessages && !is_own(id)) {
        return false;
    }
    if (found != m_messages.end() && found->second == text && !is_request(id)) {
        return true;
    }
    const auto& [key, held] = *m_messages.insert_or_assign(id, std::string(text)).first;
    if (m_observer) {
        m_observer(id, held);
    }
    for (Registration& registration : m_registrations) {
        // An alert carries no value: one that waits tells of this change, too.
        if (std::ranges::count(registration.ids, id) > 0 &&
            registration.waiting.insert(id).second) {
            alert(registration.listener, id);
        }
    }
    return true;
}

void MessageStore::alert(const android::sp<android::IKoraAlerts>& listener, int id) {
    m_pool.post(
        Channel::messages,
        [this, listener, id] {
            if (take_waiting(listener, id)) {
                listener->MessageBoxAlert(static_cast<uint16_t>(id), 0);
            }
        },
        Waiting::certain);
}

// False when the listener has left meanwhile.
bool MessageStore::take_waiting(const android::sp<android::IKoraAlerts>& listener, int id) {
    const std::lock_guard lock(m_mutex);
    return std::ranges::any_of(m_registrations, [&](Registration& registration) {
        return registration.listener == listener && registration.waiting.erase(id) > 0;
    });
}

void MessageStore::add_listener(const android::sp<android::IKoraAlerts>& listener,
                                std::vector<int> ids) {
    const std::lock_guard lock(m_mutex);
    m_registrations.push_back({listener, std::move(ids), {}});
}

void MessageStore::remove_listener(const android::sp<android::IKoraAlerts>& listener,
                                   const std::vector<int>& ids) {
    std::vector<Registration> removed;  // let go of without the lock
    const std::lock_guard lock(m_mutex);
    const auto tail = std::stable_partition(
        m_registrations.begin(), m_registrations.end(), [&](const Registration& registration) {
            return !(registration.listener == listener && registration.ids == ids);
        });
    std::move(tail, m_registrations.end(), std::back_inserter(removed));
    m_registrations.erase(tail, m_registrations.end());
}

}  // namespace nuvio::host
