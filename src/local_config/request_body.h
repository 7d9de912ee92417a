// The body of a request under way on CivetWeb's worker, read within a bounded time.
//
// CivetWeb gives up on a peer that is silent for 30 s, but not on one that sends a byte now and
// then, and once a handler is done it reads what is left of the body however long that takes. With
// a single worker either would lock every controller out, so reading stops after
// TIME_LIMIT_MS, and what was not read is refused when this object goes.
//
// Thread: the worker that runs the request. Lives until the answer has been written.
#pragma once

#include <civetweb.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <vector>

#include "local_config/server_sockets.h"

class request_body {
  public:
    // For the whole body; a peer that falls silent on top of it costs CivetWeb's 30 s more.
    static constexpr int TIME_LIMIT_MS = 5'000;
    // For a peer that still sends after its answer.
    static constexpr int LINGER_MS = 1'000;

    // `port`: the local one, of the connection.
    request_body(mg_connection* connection, uint16_t port);
    ~request_body();
    request_body(const request_body&) = delete;
    request_body& operator=(const request_body&) = delete;

    // Bytes announced; negative: unknown.
    long long length() const { return m_length; }

    // Reads length() bytes, or what arrived until the peer finished or the time was up, and ends
    // them with a NUL. Nothing on a read error. Call once, with a length that may be allocated.
    std::optional<std::vector<char>> read();

  private:
    bool is_unread() const;

    mg_connection* m_connection;
    long long m_length;
    bool m_is_chunked;
    long long m_read = 0;
    std::unique_ptr<connection_socket> m_socket;  // null: there is no body
};
