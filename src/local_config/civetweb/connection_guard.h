// Bounds the time that any peer can take from the HTTP server (common/http_guard), on the loop.
//
// The library has one worker, and it waits 30 s for a peer that is silent or slow with its headers,
// and for as long as it takes for one that sends a byte of its body now and then; everyone else
// queues behind. A peer that merely had to queue loses nothing by being cut off: what has arrived
// by then is still read and answered.
//
// Bounds   kPatience for a request from its first byte to its last: a few packets lost on a poor
//          wireless link, and less than controllers wait for an answer. From kCrowd connections on,
//          those without a request are cut at the next look, some 20 (the library's queue) at a
//          time: a request that came with its connection is served all the same.
// Idle     nothing runs while no connection is open. The kernel's signal for a new connection
//          starts the timer; it stops when the last connection is gone.
// Threads  the loop thread only; what it uses finishes closing on a later pass of the loop.
#pragma once

#include <uv.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>

#include "common/http_guard/http_guard.h"
#include "common/released_by.h"
#include "utility/uv_utilities.h"

class connection_guard {
  public:
    static constexpr std::chrono::milliseconds kPatience{5'000};
    static constexpr size_t kCrowd = 8;
    static constexpr std::chrono::milliseconds kCrowdPatience{200};

    // For the server that listens on `port`. Destroy it before the server is stopped.
    connection_guard(uv_loop_t* event_loop, uint16_t port);
    connection_guard(const connection_guard&) = delete;
    connection_guard& operator=(const connection_guard&) = delete;

  private:
    static void on_connection(uv_signal_t* handle, int signal);

    nuvio::HttpGuard m_guard;
    std::unique_ptr<uv_signal_t, nuvio::ReleasedBy<uv_signal_free>> m_signal;
};
