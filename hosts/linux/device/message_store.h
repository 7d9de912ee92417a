// MessageStore: the device's numbered messages and who wants to hear of them.
//
// Any thread. Listeners are called on the notification pool; the observer is called with the
// store's lock held, so that it sees the changes in their order, and must not call the store.
#pragma once

#include <cstddef>
#include <functional>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "device/notification_pool.h"
#include "platform/Kora.h"

namespace nuvio::host {

inline constexpr size_t kMaxMessageBytes = 4096;
inline constexpr size_t kMaxMessages = 256;

class MessageStore {
  public:
    using Observer = std::function<void(int id, const std::string& text)>;

    explicit MessageStore(NotificationPool& pool) : m_pool(pool) {}

    // Before the first write; called for each change.
    void set_observer(Observer observer) { m_observer = std::move(observer); }

    // Sets a start value; tells nobody.
    void preset(int id, std::string text);

    // False, and `text` empty, when the message has never been written.
    bool read(int id, std::string& text) const;

    // A number from a message; `fallback` when it holds none.
    int read_number(int id, int fallback) const;

    // Replaces the value and tells the observer and the id's listeners, unless it was the same
    // already (a shutdown request is news each time). Of several changes that a listener has yet to
    // be told of it is told once, and finds the last one. False, nothing changed, for an id that is
    // not a 16-bit number, a text of more than kMaxMessageBytes or more than kMaxMessages ids.
    bool write(int id, std::string_view text);

    void add_listener(const android::sp<android::IKoraAlerts>& listener, std::vector<int> ids);
    // Drops what was added with the same listener and list; what is on its way to it is dropped
    // too, except for a call that has begun.
    void remove_listener(const android::sp<android::IKoraAlerts>& listener,
                         const std::vector<int>& ids);

  private:
    struct Registration {
        android::sp<android::IKoraAlerts> listener;
        std::vector<int> ids;
        std::set<int> waiting;  // of these, whose alert has not begun
    };

    void alert(const android::sp<android::IKoraAlerts>& listener, int id);
    bool take_waiting(const android::sp<android::IKoraAlerts>& listener, int id);

    NotificationPool& m_pool;
    Observer m_observer;
    mutable std::mutex m_mutex;
    std::map<int, std::string> m_messages;      // guarded by m_mutex
    std::vector<Registration> m_registrations;  // guarded by m_mutex
};

}  // namespace nuvio::host
