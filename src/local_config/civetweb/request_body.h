// The body of a request under way on CivetWeb's worker.
//
// Once a handler is done, CivetWeb reads what is left of the body however long that takes. With a
// single worker this would lock every controller out, so what was not read is refused when this
// object goes. How long the reading itself may take is up to the connection_guard.
//
// Thread: the worker that runs the request. Lives until the answer has been written.
#pragma once

#include <civetweb.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <vector>

#include "local_config/civetweb/server_sockets.h"

class request_body {
  public:
    // For a peer that still sends after its answer.
    static constexpr int kLingerMs = 1'000;

    // `port`: the local one, of the connection.
    request_body(mg_connection* connection, uint16_t port);
    ~request_body();
    request_body(const request_body&) = delete;
    request_body& operator=(const request_body&) = delete;

    // Bytes announced; negative: unknown.
    long long length() const { return m_length; }

    // Reads length() bytes, or what arrived until the stream ended, and ends them with a NUL.
    // Nothing on a read error. Call once, with a length that may be allocated.
    std::optional<std::vector<char>> read();

  private:
    bool is_unread() const;
    void encourage();

    mg_connection* m_connection;
    long long m_length;
    bool m_is_chunked;
    long long m_read = 0;
    std::unique_ptr<connection_socket> m_socket;  // null: there is no body
};
