// Bounds the time that any peer can take from the HTTP server.
//
// The library has one worker, and it waits 30 s for a peer that is silent or slow with its headers,
// and for as long as it takes for one that sends a byte of its body now and then; everyone else
// queues behind. The guard ends the reading side of each connection that is open for longer than
// its patience: the worker finds the end of the stream and goes on. What has arrived by then is
// still read and answered, so a peer that merely had to queue loses nothing.
//
// Bounds   kPatienceMs for a request from its first byte to its last: a few packets lost on a poor
//          wireless link, and less than controllers wait for an answer. Connections age together,
//          so several bad ones cost no more than one. From kCrowd connections on, those without a
//          request are cut at the next look, some 20 (the library's queue) at a time: a request
//          that came with its connection is served all the same.
// Idle     nothing runs while no connection is open. The kernel's signal for a new connection
//          starts the timer; it stops when the last connection is gone.
// Threads  the loop thread only; what it uses finishes closing on a later pass of the loop.
#pragma once

#include <uv.h>

#include <cstdint>
#include <map>
#include <set>

class connection_guard {
  public:
    static constexpr uint64_t kPatienceMs = 5'000;
    static constexpr size_t kCrowd = 8;
    static constexpr uint64_t kCrowdPatienceMs = 200;
    static constexpr uint64_t kTickMs = 250;  // between looks

    // For the server that listens on `port`. Destroy it before the server is stopped.
    connection_guard(uv_loop_t* event_loop, uint16_t port);
    ~connection_guard();
    connection_guard(const connection_guard&) = delete;
    connection_guard& operator=(const connection_guard&) = delete;

  private:
    static void on_connection(uv_signal_t* handle, int signal);
    static void on_tick(uv_timer_t* timer);
    void watch();
    void look();

    uv_signal_t* m_signal;
    uv_timer_t* m_timer;
    uint16_t m_port;
    bool m_expects_connections = false;           // some were announced since the last look
    std::set<uint64_t> m_cut{};                   // of the open ones; each is told once
    std::map<uint64_t, uint64_t> m_first_seen{};  // ms on the loop's clock, by socket
};
