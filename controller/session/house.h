// The devices of the house and what is done with them: who is there, whose session each plays, what
// its channel tells, and commands to it. The one place where pages, command line, devices and
// discovery meet.
//
// Threads  any, for every function. `play` and `command` wait for the device: seconds, at most
//          kPatience. One thread of the house's own asks devices how they are.
// Locks    one; it is never held while something waits.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "common/json/json.h"
#include "controller/base/changes.h"
#include "controller/discovery/discovery.h"
#include "controller/library/library.h"
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

struct Outcome {
    bool is_ok = false;
    std::string reason;  // for people, where it is not
};

// In a device's queue: in its place, behind the current track, at its end, at its beginning.
enum class Where { now, next, end, front };

class House {
  public:
    static constexpr std::chrono::seconds kPatience{10};

    // Borrows library and changes. `port`: this controller's, for the URLs that devices get.
    House(Library& library, Changes& changes, const std::string& state_folder, uint16_t port);
    ~House();
    House(const House&) = delete;
    House& operator=(const House&) = delete;

    // ---- What there is ----

    void set_found(const std::vector<FoundDevice>& devices);
    // Asks all devices how they are; soon.
    void look_again();
    // Ends what waits here, for good.
    void close();
    // An array, by name.
    JsonPtr describe_devices() const;
    // By id, or by name where case does not matter; empty: none of that name, or several.
    std::string device_named(const std::string& name) const;
    JsonPtr describe_queue(const std::string& device) const;  // null: no such device

    // ---- What is done ----

    // `start`: place in `items` of the first one to play; for Where::now.
    Outcome play(const std::string& device, const std::vector<Playable>& items, Where where,
                 size_t start = 0);
    // A command of the channel, with its arguments.
    Outcome command(const std::string& device, const std::string& name, JsonPtr arguments);

    // ---- What devices ask ----

    // Whose token this is; empty: nobody's.
    std::string device_of_token(std::string_view token) const;
    // The JSPF of the session with this id and token.
    std::optional<std::string> playlist(const std::string& session, std::string_view token) const;
    // False: not wanted. The device's link before this one is closed.
    bool channel_opened(std::string_view token, const std::shared_ptr<ChannelLink>& link);
    void channel_said(const ChannelLink* link, std::string_view text);
    void channel_closed(const ChannelLink* link);

  private:
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
        DeviceState state;
        bool is_bit_exact = false;  // what is heard is what the file holds
    };
    struct Waiting {
        std::string device;
        std::optional<Outcome> outcome;
    };

    void run_errands();
    void look_at(const FoundDevice& device);
    Outcome begin_session(const std::string& id, const FoundDevice& found,
                          const std::vector<Playable>& items);
    Outcome insert(const std::string& id, const std::vector<Playable>& items, Where where);
    Outcome replace(const std::string& id, JsonPtr tracks, size_t start);
    bool has_queue(const std::string& id);
    void describe(cJSON* object, const std::string& id, const Device& device) const;
    Device* device_of(const ChannelLink* link);
    void note_answer(const cJSON* message);
    void note_goodbye(Device& device, const std::string& reason);
    void note_track(const ChannelLink* link);
    static void ask_for_rest(const Device& device);
    void change();  // m_mutex is held
    bool is_ours(const std::string& id, const std::string& session) const;

    Library& m_library;
    Changes& m_changes;
    const uint16_t m_port;

    mutable std::mutex m_mutex;
    std::condition_variable m_on_change;  // m_devices, m_waiting, m_errands, m_is_closed
    // All below under m_mutex.
    bool m_is_closed = false;
    SessionStore m_sessions;
    std::map<std::string, Device> m_devices;                          // by id
    std::map<std::string, DeviceState::Clock::time_point> m_errands;  // whom to ask, and when
    std::map<std::string, Waiting> m_waiting;                         // by the command's id
    uint64_t m_command_count = 0;

    std::thread m_errand_thread;
};

}  // namespace nuvio::controller
