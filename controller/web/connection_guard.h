// Cuts off peers that hold a connection without getting on: CivetWeb looks at its own time-outs
// only when a read brought nothing, so a byte a second would hold a worker for ever.
//
// Threads  any, for every function; one thread of its own that sleeps while no connection has a
//          deadline.
#pragma once

#include <civetweb.h>

#include <chrono>
#include <condition_variable>
#include <map>
#include <mutex>
#include <thread>

namespace nuvio::controller {

class ConnectionGuard {
  public:
    using Clock = std::chrono::steady_clock;

    ConnectionGuard();
    ~ConnectionGuard();
    ConnectionGuard(const ConnectionGuard&) = delete;
    ConnectionGuard& operator=(const ConnectionGuard&) = delete;

    // A connection is there; its end must be told while its socket is still open.
    void begin(const mg_connection* connection);
    void end(const mg_connection* connection);
    // It is cut off after that time from now; replaces what was set before.
    void set_deadline(const mg_connection* connection, std::chrono::seconds after);
    void clear_deadline(const mg_connection* connection);
    void cut(const mg_connection* connection);
    void cut_all();

  private:
    struct Entry {
        int fd;
        Clock::time_point deadline;
    };

    void run();

    std::mutex m_mutex;
    std::condition_variable m_on_change;
    bool m_is_ending = false;
    std::map<const mg_connection*, Entry> m_entries;
    std::thread m_thread;
};

}  // namespace nuvio::controller
