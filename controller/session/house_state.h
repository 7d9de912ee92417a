// What the house's parts share: the devices with what is known of each, the sessions, and the one
// lock over both.
#pragma once

#include <condition_variable>
#include <map>
#include <memory>
#include <mutex>
#include <string>

#include "controller/base/changes.h"
#include "controller/discovery/discovery.h"
#include "controller/session/device_state.h"
#include "controller/session/session_store.h"

namespace nuvio::controller {

// The controller's end of a session's channel. Both functions may be called by any thread, return
// at once and never call back.
class ChannelLink {
  public:
    ChannelLink() = default;
    ChannelLink(const ChannelLink&) = delete;
    ChannelLink& operator=(const ChannelLink&) = delete;
    virtual ~ChannelLink() = default;
    virtual void send(std::string message) = 0;
    virtual void close() = 0;
};

enum class Reach { asking, reached, failed };
enum class Owner { nobody, us, other };

struct Device {
    FoundDevice found;
    bool is_present = false;
    Reach reach = Reach::asking;
    std::string failure;  // why it can't be reached
    int tries = 0;        // that failed one after the other
    std::string brand, model, quality, kind;
    Owner owner = Owner::nobody;
    std::shared_ptr<ChannelLink> link;
    std::string link_session;  // whose channel it is, or was the last time
    DeviceState state;
    bool is_bit_exact = false;  // what is heard is what the file holds
};

// Everything but the constructor and `write_sessions` under `mutex`, which is never held while
// something waits, be it the disk.
struct HouseState {
    HouseState(Changes& all_changes, const std::string& sessions_path)
        : changes(all_changes), sessions(sessions_path) {}

    // What pages show is another, or what somebody here waits for has come.
    void change() {
        changes.announce();
        on_change.notify_all();
    }
    // Null: no such device.
    Device* find(const std::string& id) {
        const auto device = devices.find(id);
        return device != devices.end() ? &device->second : nullptr;
    }

    // Without `mutex`. Waits for the disk; whoever writes writes what is newest.
    void write_sessions() {
        const std::scoped_lock one_at_a_time(writing);
        std::string text;
        {
            const std::scoped_lock lock(mutex);
            text = sessions.text();
        }
        sessions.write(text);
    }

    std::mutex writing;  // locked before `mutex`
    std::mutex mutex;
    std::condition_variable on_change;
    Changes& changes;
    bool is_closed = false;                                         // whatever waits ends
    std::map<std::string, Device> devices;                          // by id
    std::map<std::string, DeviceState::Clock::time_point> errands;  // whom to ask, and when
    SessionStore sessions;
};

}  // namespace nuvio::controller
