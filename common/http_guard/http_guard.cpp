#include "common/http_guard/http_guard.h"

#include <sys/socket.h>

#include <algorithm>
#include <utility>

namespace nuvio {

namespace {

constexpr HttpGuard::Clock::time_point kNever = HttpGuard::Clock::time_point::max();

}  // namespace

HttpGuard::HttpGuard(uint16_t port, Settings settings, std::unique_ptr<GuardClock> clock)
    : m_port(port), m_settings(std::move(settings)), m_clock(std::move(clock)) {}

void HttpGuard::announce() {
    {
        const std::scoped_lock lock(m_mutex);
        m_expects_connections = true;
    }
    m_clock->start(*this);
}

// Two may have come from one place, to different addresses of this machine.
SocketNumber HttpGuard::find(const char* address, uint16_t port) {
    const std::scoped_lock lock(m_mutex);
    SocketNumber found = 0;
    for_each_tcp_socket(m_port, [&](const TcpSocket& socket) {
        const auto known = m_connections.find(socket.number);
        const bool is_new = known == m_connections.end() || !known->second.has_request;
        if (is_new && has_peer(socket.own.get(), address, port)) {
            found = socket.number;
        }
        return found == 0;
    });
    return found;
}

void HttpGuard::set_deadline(SocketNumber connection, std::chrono::milliseconds after) {
    set(connection, Clock::now() + after);
    m_clock->start(*this);
}

void HttpGuard::clear_deadline(SocketNumber connection) {
    set(connection, kNever);
}

void HttpGuard::set(SocketNumber connection, Clock::time_point deadline) {
    const std::scoped_lock lock(m_mutex);
    m_connections[connection] = {.deadline = deadline, .has_request = true};
}

void HttpGuard::cut(SocketNumber connection) {
    cut_where([=](SocketNumber number) { return number == connection; });
}

void HttpGuard::cut_all() {
    cut_where([](SocketNumber) { return true; });
}

void HttpGuard::cut_where(const std::function<bool(SocketNumber)>& is_meant) const {
    for_each_tcp_socket(m_port, [&](const TcpSocket& socket) {
        if (is_meant(socket.number) && !is_listener(socket.own.get())) {
            shutdown(socket.own.get(), SHUT_RDWR);
        }
        return true;
    });
}

// True: it has been cut off just now for want of a request.
bool HttpGuard::end_if_over(const TcpSocket& socket, Connection& connection,
                            std::chrono::milliseconds patience, Clock::time_point now) const {
    // A newcomer's deadline is the end of the longer patience.
    const auto end = connection.has_request ? connection.deadline
                                            : connection.deadline - m_settings.patience + patience;
    if (connection.is_cut || end > now) {
        return false;
    }
    connection.is_cut = true;
    shutdown(socket.own.get(), connection.has_request ? SHUT_RDWR : SHUT_RD);
    return !connection.has_request;
}

bool HttpGuard::look() {
    unsigned cut = 0;
    bool looks_again = false;
    std::chrono::milliseconds patience{};
    {
        const std::scoped_lock lock(m_mutex);
        patience =
            m_without_request >= m_settings.crowd ? m_settings.crowd_patience : m_settings.patience;
        const Clock::time_point now = Clock::now();
        std::map<SocketNumber, Connection> still_open;
        for_each_tcp_socket(m_port, [&](const TcpSocket& socket) {
            if (!is_listener(socket.own.get())) {
                const auto known = m_connections.find(socket.number);
                Connection connection = known == m_connections.end()
                                            ? Connection{.deadline = now + m_settings.patience}
                                            : known->second;
                cut += static_cast<unsigned>(end_if_over(socket, connection, patience, now));
                still_open.emplace(socket.number, connection);
            }
            return true;
        });
        m_connections = std::move(still_open);
        m_without_request = static_cast<size_t>(std::ranges::count_if(
            m_connections, [](const auto& entry) { return !entry.second.has_request; }));
        // What was cut off may have kept others from being accepted, and what was announced a
        // moment ago may not have been accepted yet.
        looks_again = std::exchange(m_expects_connections, false) ||
                      std::ranges::any_of(m_connections, [](const auto& entry) {
                          return entry.second.deadline != kNever;
                      });
    }
    if (cut > 0 && m_settings.on_cut) {
        m_settings.on_cut(cut, patience);
    }
    return looks_again;
}

}  // namespace nuvio
