// The alarms, kept in a file.
//
// Threads  its owner sees to locking; what waits for the disk says so.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "controller/session/alarm_time.h"

namespace nuvio::controller {

// A device that begins to play at a time of day.
struct Alarm {
    int64_t id = 0;           // 0: not kept yet
    std::string device;       // its id
    std::string device_name;  // as it was called last
    AlarmTime time;
    std::string what, title;  // for Library::select, and for people
    std::optional<int64_t> volume;
    bool is_on = true;
    // What came up to then, in seconds since 1970, is over. 0: from when the clock is known to be
    // right.
    int64_t since = 0;
    std::string failure;  // of the last time, for people; empty: none
};

// That it was due then is over, with what came of it; one without days is off.
void note_rung(Alarm* alarm, int64_t due, std::string failure);
// When one that is on is due next, or was in the last ten minutes before `now`; of what it has
// missed before that it keeps a failure. A clock that was put back by more than an hour has it
// count from now. None: not any more.
std::optional<int64_t> due_of(Alarm* alarm, int64_t now);

class AlarmStore {
  public:
    static constexpr size_t kMostOfDevice = 8;
    static constexpr size_t kMost = 64;

    // Reads `path`, and waits for the disk; what can't be read there is as nothing.
    explicit AlarmStore(std::string path);

    // In the order in which they were made.
    std::vector<Alarm>& all() { return m_alarms; }
    const std::vector<Alarm>& all() const { return m_alarms; }
    // Null: no such alarm. Borrowed until one is put or removed.
    Alarm* find(int64_t id);
    // In the place of the one with its id, or as a new one; its id. 0: there is no room for more.
    int64_t put(Alarm alarm);
    // False: there was none.
    bool remove(int64_t id);

    const std::string& path() const { return m_path; }
    // What the file is to hold.
    std::string text() const;

  private:
    const std::string m_path;
    std::vector<Alarm> m_alarms;
    int64_t m_last_id = 0;
};

}  // namespace nuvio::controller
