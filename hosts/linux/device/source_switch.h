// SourceSwitch: which of the device's sources owns the output, and the way to the one source that
// this machine really has.
//
// Message 50 holds the number of the owner, 0 for none. Any thread; no call waits for the listener,
// which is called on the notification pool. Its lock is taken before those of messages, player and
// pool.
#pragma once

#include <functional>
#include <mutex>
#include <string>

#include "device/message_store.h"
#include "device/notification_pool.h"
#include "device/now_playing.h"
#include "platform/SourceSwitch.h"

namespace nuvio::host {

class SourceSwitch {
  public:
    using Listener = android::sp<android::BnSourceSwitchListener>;

    SourceSwitch(NotificationPool& pool, MessageStore& messages, NowPlaying& now_playing)
        : m_pool(pool), m_messages(messages), m_now_playing(now_playing) {}

    // The service asks for the output; the newest request wins, unless it is to be refused.
    bool request(const Listener& listener, int source);
    // The service gives the output back and takes no commands any more.
    void release(const Listener& listener);

    // What a person does at the device. Commands and volume go to the listener that asked last;
    // false when there is none.
    bool send_command(const std::string& command);
    bool send_volume(int percent);
    // True while the service owns the output.
    bool has_output();
    // Another source, by its number, takes the output.
    void take_output(int source);
    // That source is switched off: nobody owns the output.
    void give_back_output();
    // The next request for the output is answered with no.
    void refuse_next_request();

  private:
    using Notification = std::function<void(android::BnSourceSwitchListener&)>;

    bool notify(Notification notification, Waiting waiting = Waiting::limited);
    bool owns_output() const;
    void set_owner(int source);

    NotificationPool& m_pool;
    MessageStore& m_messages;
    NowPlaying& m_now_playing;

    std::mutex m_mutex;
    Listener m_listener;
    bool m_refuse_next = false;
};

}  // namespace nuvio::host
