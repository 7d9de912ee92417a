// Bounds the time that any peer can take from an HTTP server whose library waits for as long as a
// peer sends a byte now and then, and shows no connection's descriptor.
//
// A new connection has the patience of the settings for its request; then its reading side is
// closed, so that the server finds the end of the stream, and what has arrived is still read and
// answered. Where the server tells that the request has come, by setting a deadline or clearing it,
// that holds instead, and the connection is cut both ways.
//
// Bounds   connections age together, so several bad ones cost no more than one. Where a crowd of
//          them has no deadline set, they have the crowd's patience.
// Numbers  a connection is known by the kernel's number of its socket, and acted upon through a
//          second descriptor: whoever owns the first may close it at any moment, and its number
//          become another connection's.
// Idle     nothing runs while no connection has a deadline.
// Threads  any, for every function; look() runs where the clock has it run.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>

#include "common/sockets/process_sockets.h"

namespace nuvio {

class HttpGuard;

// Has a guard look.
class GuardClock {
  public:
    static constexpr std::chrono::milliseconds kTick{250};

    GuardClock() = default;
    // No look runs any more when it returns.
    virtual ~GuardClock() = default;
    GuardClock(const GuardClock&) = delete;
    GuardClock& operator=(const GuardClock&) = delete;

    // Calls guard.look() every kTick until that is false; goes on where it does already. Always
    // with the same guard.
    virtual void start(HttpGuard& guard) = 0;
};

class HttpGuard {
  public:
    using Clock = std::chrono::steady_clock;

    struct Settings {
        std::chrono::milliseconds patience;
        size_t crowd;  // connections without a deadline set
        std::chrono::milliseconds crowd_patience;
        // So many were cut off without a request within that time. May be empty.
        std::function<void(unsigned count, std::chrono::milliseconds patience)> on_cut;
    };

    // For the server that listens on `port`, not 0; while this lives, the port is nobody else's in
    // the process.
    HttpGuard(uint16_t port, Settings settings, std::unique_ptr<GuardClock> clock);

    // A connection has been made, or will be accepted soon.
    void announce();
    // The number of the connection from there that has no deadline set yet; 0, which is no
    // connection's, where it is gone. `address`: in digits.
    SocketNumber find(const char* address, uint16_t port);
    // It is cut off after that time from now; replaces what was set before.
    void set_deadline(SocketNumber connection, std::chrono::milliseconds after);
    void clear_deadline(SocketNumber connection);
    void cut(SocketNumber connection);
    void cut_all();

    // Cuts off what is over. False: not to be called again before the clock is started again.
    bool look();

  private:
    struct Connection {
        Clock::time_point deadline;  // max: none
        bool has_request = false;    // the deadline was set, or cleared
        bool is_cut = false;
    };

    void cut_where(const std::function<bool(SocketNumber)>& is_meant) const;
    void set(SocketNumber connection, Clock::time_point deadline);
    bool end_if_over(const TcpSocket& socket, Connection& connection,
                     std::chrono::milliseconds patience, Clock::time_point now) const;

    const uint16_t m_port;
    const Settings m_settings;
    std::mutex m_mutex;                  // of what follows but for the clock
    bool m_expects_connections = false;  // some were announced since the last look
    size_t m_without_request = 0;        // at the last look
    std::map<SocketNumber, Connection> m_connections;
    const std::unique_ptr<GuardClock> m_clock;  // goes first
};

}  // namespace nuvio
