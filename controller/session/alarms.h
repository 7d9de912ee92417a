// Alarms: a device begins to play at a time of day (alarm_time.h), whatever it played before.
//
// Once a day   an alarm rings at most, however the clock goes: one that is put back by up to an
// hour
//              brings no alarm that has rung once more; by more than that, it was wrong before.
// Missed       is one that is more than ten minutes over when it could ring, as this controller was
//              not running or the clock was put forward: it is said and not rung.
// Boot         in a machine's first three minutes nothing rings before its clock is set, as one
//              without a battery begins in the past; what is set up then counts from that on.
// Time zone    another one counts from the next moment that an alarm was due or one is changed.
// Sleep        a timer of the device is taken away: it was meant for what played before.
// Away         a device that is not there has five minutes to come, one that plays nothing of it
//              plays something else of the library; either is kept with the alarm, for people.
// Ends         one without days is off once it was due.
//
// Threads  any; a thread of its own sleeps until the next one is due, one each rings. `set` and
//          `remove` wait for the disk.
#pragma once

#include <atomic>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "common/json/json.h"
#include "controller/base/wall_timer.h"
#include "controller/library/library.h"
#include "controller/session/commands.h"
#include "controller/session/house_state.h"
#include "controller/session/queues.h"

namespace nuvio::controller {

class Alarms {
  public:
    // Borrows all. The state is to be closed before the end.
    Alarms(HouseState& house, Commands& commands, Queues& queues, Library& library);
    ~Alarms();
    Alarms(const Alarms&) = delete;
    Alarms& operator=(const Alarms&) = delete;

    // None: no such alarm.
    std::optional<Alarm> find(int64_t id) const;
    // As a new one, without an id, or in the place of the one with it; what it says of the past and
    // its device's name do not count. Its id comes back; 0: there is no room for more.
    int64_t set(Alarm alarm);
    // False: there was none.
    bool remove(int64_t id);
    // An array; of all devices, or of one.
    JsonPtr describe(const std::string& device = {}) const;

  private:
    void take_name(Alarm* alarm) const;
    void run();
    std::optional<int64_t> ring_due(bool* has_changed);
    bool is_clock_known() const;
    void begin_to_ring(Alarm* alarm, int64_t due);
    void ring(const Alarm& alarm, int64_t due);
    std::string wait_for_device(const Alarm& alarm);
    bool is_still_wanted(const Alarm& alarm) const;
    void say(const Alarm& alarm, const std::string& failure);
    std::string play_something(const Alarm& alarm);
    std::string play(const Alarm& alarm, const std::string& what);
    void be_loud(const Alarm& alarm, Commands::Clock::time_point latest);
    std::string wait_until_heard(const std::string& device);

    HouseState& m_house;
    Commands& m_commands;
    Queues& m_queues;
    Library& m_library;
    WallTimer m_timer;
    std::atomic<bool> m_is_clock_set{false};  // since this began
    // Those that ring, by the alarm; under the house's mutex, and so their ends.
    std::map<int64_t, std::thread> m_ringing;
    std::vector<std::thread> m_over;
    std::thread m_thread;
};

}  // namespace nuvio::controller
