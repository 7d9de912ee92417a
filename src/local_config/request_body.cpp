#include "local_config/request_body.h"

#include <algorithm>

request_body::request_body(mg_connection* connection, uint16_t port)
    : m_connection(connection),
      m_length(mg_get_request_info(connection)->content_length),
      m_is_chunked(m_length < 0 && mg_get_header(connection, "Transfer-Encoding") != nullptr) {
    if (is_unread()) {
        const auto remote_port =
            static_cast<uint16_t>(mg_get_request_info(connection)->remote_port);
        m_socket = std::make_unique<connection_socket>(port, remote_port);
    }
}

request_body::~request_body() {
    if (is_unread()) {
        m_socket->close_gently(LINGER_MS);
    }
}

bool request_body::is_unread() const {
    return m_is_chunked || m_read < m_length;
}

std::optional<std::vector<char>> request_body::read() {
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
