#include "local_config/civetweb/request_body.h"

#include <strings.h>

#include <algorithm>

request_body::request_body(mg_connection* connection, uint16_t port)
    : m_connection(connection),
      m_length(mg_get_request_info(connection)->content_length),
      m_is_chunked(m_length < 0 && mg_get_header(connection, "Transfer-Encoding") != nullptr) {
    if (is_unread()) {
        const mg_request_info* request = mg_get_request_info(connection);
        m_socket = std::make_unique<connection_socket>(port, request->remote_addr,
                                                       static_cast<uint16_t>(request->remote_port));
    }
}

request_body::~request_body() {
    if (is_unread()) {
        m_socket->close_gently(kLingerMs);
    }
}

bool request_body::is_unread() const {
    return m_is_chunked || m_read < m_length;
}

// CivetWeb leaves this to its handlers, and takes what they write for the answer; so it goes around
// it. A peer that asks would wait for it a second or more.
void request_body::encourage() {
    const char* expectation = mg_get_header(m_connection, "Expect");
    if (m_socket && expectation != nullptr && strcasecmp(expectation, "100-continue") == 0) {
        m_socket->send("HTTP/1.1 100 Continue\r\n\r\n");
    }
}

std::optional<std::vector<char>> request_body::read() {
    encourage();
    std::vector<char> bytes(static_cast<size_t>(m_length) + 1);
    while (m_read < m_length) {
        // mg_read waits until it has all it was asked for. So ask for what the socket has, or else
        // for one byte: that one may come from CivetWeb's own buffer.
        const auto size = std::clamp<long long>(m_socket->readable_bytes(), 1, m_length - m_read);
        const int count = mg_read(m_connection, bytes.data() + m_read, static_cast<size_t>(size));
        // A peer that closed its sending side early is reported as an error by CivetWeb 1.15, and
        // one that fell silent as the end.
        if (count < 0 && !m_socket->has_ended()) {
            return std::nullopt;
        }
        if (count <= 0) {
            break;
        }
        m_read += count;
    }
    bytes.resize(static_cast<size_t>(m_read) + 1);
    return bytes;
}
