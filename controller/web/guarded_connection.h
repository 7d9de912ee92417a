// One of CivetWeb's connections, to the guard that cuts off peers which do not get on. Made in
// passing; works on nothing where the connection is over.
//
// Threads  any.
#pragma once

#include <civetweb.h>

#include <bit>
#include <chrono>
#include <cstdint>

#include "common/http_guard/http_guard.h"

namespace nuvio::controller {

class GuardedConnection {
  public:
    GuardedConnection(HttpGuard& guard, const mg_connection* connection)
        : m_guard(guard),
          m_number(std::bit_cast<uintptr_t>(mg_get_user_connection_data(connection))) {}

    // Before the first of a connection, and once its request has come: CivetWeb keeps its number,
    // for which the kernel has 32 bits.
    static void introduce(HttpGuard& guard, mg_connection* connection) {
        const mg_request_info* info = mg_get_request_info(connection);
        const SocketNumber number =
            guard.find(info->remote_addr, static_cast<uint16_t>(info->remote_port));
        mg_set_user_connection_data(connection,
                                    std::bit_cast<void*>(static_cast<uintptr_t>(number)));
    }

    void set_deadline(std::chrono::milliseconds after) { m_guard.set_deadline(m_number, after); }
    void clear_deadline() { m_guard.clear_deadline(m_number); }
    void cut() { m_guard.cut(m_number); }

  private:
    HttpGuard& m_guard;
    const SocketNumber m_number;
};

}  // namespace nuvio::controller
