// The life of one CivetWeb server: starting, and stopping without making the loop wait for it.
//
// A stop takes CivetWeb some 10 ms at best; it happens on a thread of its own, the stopper. A start
// that comes meanwhile waits for its end, as the port is still taken.
//
// Threads  every function: the loop thread only.
#pragma once

#include <civetweb.h>
#include <uv.h>

#include <cstdint>
#include <memory>

#include "common/released_by.h"
#include "local_config/civetweb/connection_guard.h"
#include "local_config/civetweb/loop_hand_off.h"
#include "utility/uv_utilities.h"

class web_server {
  public:
    // Puts the request handlers on a context that has just been started.
    using register_handlers = void (*)(mg_context* context, void* data);

    // Borrows the loop, and the hand-off that its handlers wait in: a stop cancels it.
    web_server(uv_loop_t* event_loop, uint16_t port, loop_hand_off& hand_off,
               register_handlers handlers, void* data);
    // Stops, and waits for the end of that.
    ~web_server();
    web_server(const web_server&) = delete;
    web_server& operator=(const web_server&) = delete;

    // Running, or about to be.
    bool is_started() const;
    // A server that can't be started is logged; it is stopped then, and may be started again.
    void start();
    // Nothing when it is not started.
    void stop();

    // The port of the server that runs, or ran last; differs from the configured one when that is
    // 0. Any thread that a handler runs on.
    uint16_t listening_port() const { return m_listening_port; }

  private:
    enum class state { stopped, running, stopping, restarting };

    // CivetWeb's global state; goes after every context is gone.
    struct library {
        library() { mg_init_library(0); }
        ~library() { mg_exit_library(); }
        library(const library&) = delete;
        library& operator=(const library&) = delete;
    };

    static void on_stopped(uv_async_t* async);
    static void stop_context(void* self);
    void start_now();
    void join_stopper();

    library m_library;
    uv_loop_t* const m_loop;
    const uint16_t m_port;
    loop_hand_off& m_hand_off;
    const register_handlers m_handlers;
    void* const m_data;
    state m_state = state::stopped;
    mg_context* m_context = nullptr;  // running, or being stopped
    uint16_t m_listening_port = 0;
    std::unique_ptr<connection_guard> m_guard;  // while running
    uv_thread_t m_stopper{};                    // while stopping or restarting
    std::unique_ptr<uv_async_t, nuvio::ReleasedBy<uv_async_free>> m_on_stopped;
};
