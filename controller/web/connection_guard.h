// Cuts off peers that hold a connection without getting on: CivetWeb looks at its own time-outs
// only when a read brought nothing, so a byte a second would hold a worker for ever.
//
// CivetWeb shows no connection's descriptor, so those of the server are found in /proc/self/fd by
// their port. One that has brought no request 5 s after it was first seen is cut off; from then on
// it has the deadline that its request is given.
//
// Threads  any, for every function; one thread of its own that sleeps while no connection has a
//          deadline.
#pragma once

#include <civetweb.h>

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <map>
#include <mutex>
#include <thread>
#include <vector>

namespace nuvio::controller {

class ConnectionGuard {
  public:
    using Clock = std::chrono::steady_clock;

    // `port`: the server's.
    explicit ConnectionGuard(uint16_t port);
    ~ConnectionGuard();
    ConnectionGuard(const ConnectionGuard&) = delete;
    ConnectionGuard& operator=(const ConnectionGuard&) = delete;

    // A connection has come.
    void look();
    // A request has come on it; its end must be told while its socket is still open.
    void begin(const mg_connection* connection, std::chrono::seconds deadline);
    void end(const mg_connection* connection);
    // It is cut off after that time from now; replaces what was set before.
    void set_deadline(const mg_connection* connection, std::chrono::seconds after);
    void clear_deadline(const mg_connection* connection);
    void cut(const mg_connection* connection);
    void cut_all();

  private:
    // A socket's peer: IPv4 address and port.
    using Peer = uint64_t;
    struct Socket {
        int fd;
        Peer peer;
    };
    struct Entry {
        Socket socket;
        Clock::time_point deadline;
    };

    static Peer peer_of(int fd, uint16_t local_port);
    std::vector<Socket> sockets() const;
    void note_newcomers();
    void cut_newcomer(Socket socket) const;
    void run();

    const uint16_t m_port;
    std::mutex m_mutex;
    std::condition_variable m_on_change;
    bool m_is_ending = false;
    std::map<const mg_connection*, Entry> m_entries;
    std::map<Peer, Entry> m_newcomers;  // without a request so far
    std::thread m_thread;
};

}  // namespace nuvio::controller
