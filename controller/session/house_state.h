// What the house's parts share: the devices with what is known of each, the sessions, the alarms,
// and the one lock over all.
#pragma once

#include <condition_variable>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <system_error>

#include "common/files/files.h"
#include "controller/base/changes.h"
#include "controller/base/log.h"
#include "controller/discovery/discovery.h"
#include "controller/session/alarm_store.h"
#include "controller/session/condition.h"
#include "controller/session/device_state.h"
#include "controller/session/session_store.h"
#include "controller/session/taken.h"

namespace nuvio::controller {

// The controller's end of a session's channel. All functions may be called by any thread, return
// at once and never call back.
class ChannelLink {
  public:
    ChannelLink() = default;
    ChannelLink(const ChannelLink&) = delete;
    ChannelLink& operator=(const ChannelLink&) = delete;
    virtual ~ChannelLink() = default;
    virtual void send(std::string message) = 0;
    virtual void close() = 0;
    // The device is about to say something: where nothing comes it is asked whether it is there,
    // and without an answer the channel ends. Until it says something.
    virtual void expect_word() = 0;
    // The same while it plays, as it tells its position every ten seconds then; else it may say
    // nothing for longer.
    virtual void set_playing(bool is_playing) = 0;
};

// What somebody wants to hear on a device.
struct Asked {
    std::string title;                // or address
    std::string session;              // that is to play it; empty: not known yet
    std::optional<int64_t> revision;  // of the queue before, where another one is to come
    DeviceState::Clock::time_point since = DeviceState::Clock::now();
    bool is_waiting = true;  // nothing came of it yet
};

struct Device {
    FoundDevice found;
    bool is_present = false;
    Reach reach = Reach::asking;
    std::string failure;  // why it can't be reached
    int tries = 0;        // that failed one after the other
    std::string brand, model, quality, kind;
    Owner owner = Owner::nobody;
    std::shared_ptr<ChannelLink> link;
    std::string link_session;                   // whose channel it is, or was the last time
    std::shared_ptr<ChannelLink> offered_link;  // of a session that it may join yet
    std::string offered_session;
    bool has_gone_silent = false;  // its channel did, and nothing was heard of it since
    DeviceState state;
    bool is_bit_exact = false;     // what is heard is what the file holds
    bool is_being_filled = false;  // more of its queue is on the way: it is read when all is there

    std::optional<Asked> asked;  // last; none: it has been heard, or put off
    std::string problem;         // the last one since then; empty: there was none
    int64_t problem_count = 0;   // in all

    std::optional<Taken> taken;  // of its queue, last; none: nothing that could be put back

    // What nothing came of yet; null: nothing is waited for.
    const Asked* waiting() const { return asked && asked->is_waiting ? &*asked : nullptr; }
    void ask_for(Asked wanted) {
        asked = std::move(wanted);
        problem.clear();
    }
    void put_off() { asked.reset(); }
    void fail(std::string reason) {
        if (asked) {
            asked->is_waiting = false;
        }
        problem = std::move(reason);
        ++problem_count;
    }
    bool is_asked_heard() const {
        const Asked* const wanted = waiting();
        return wanted != nullptr && link != nullptr && link_session == wanted->session &&
               state.is_playing() && state.is_track_heard() &&
               (!wanted->revision ||
                (*wanted->revision != state.revision() && state.is_heard_of_queue()));
    }
    Known known() const {
        return {link != nullptr, is_present,           has_gone_silent,  reach,
                owner,           waiting() != nullptr, state.playback(), state.is_track_heard(),
                state.advances()};
    }
};

// Everything but the constructor and the two that write under `mutex`, which is never held while
// something waits, be it the disk.
struct HouseState {
    HouseState(Changes& all_changes, const std::string& folder)
        : changes(all_changes),
          sessions(folder + "/sessions.json"),
          alarms(folder + "/alarms.json") {}

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

    // What people call it here, else what it calls itself.
    const std::string& name_of(const std::string& id, const Device& device) const {
        const std::string& given = sessions.wishes_of(id).name;
        return given.empty() ? device.found.name : given;
    }

    // Without `mutex`. Waits for the disk; whoever writes writes what is newest. The file is the
    // old or the new one, also after a power cut; one that can't be written is logged.
    void write_sessions() { write(sessions); }
    void write_alarms() { write(alarms); }

    std::mutex writing;  // locked before `mutex`
    std::mutex mutex;
    std::condition_variable on_change;
    Changes& changes;
    bool is_closed = false;                                         // whatever waits ends
    std::map<std::string, Device> devices;                          // by id
    std::map<std::string, DeviceState::Clock::time_point> errands;  // whom to ask, and when
    SessionStore sessions;
    AlarmStore alarms;

  private:
    template <typename Store>
    void write(const Store& store) {
        const std::scoped_lock one_at_a_time(writing);
        std::string text;
        {
            const std::scoped_lock lock(mutex);
            text = store.text();
        }
        if (const int error = replace_file(store.path(), text, 0600)) {
            log_line(LogLevel::error, store.path() + ": " + std::generic_category().message(error));
        }
    }
};

}  // namespace nuvio::controller
