#include "local_config/civetweb/server_sockets.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <utility>

#include "common/sockets/process_sockets.h"
#include "utility/check.h"

namespace {

using nuvio::is_listener;
using nuvio::TcpSocket;

template <typename Visit>
void for_each_socket(uint16_t port, Visit visit) {
    NUV_CHECK(port != 0);  // every local socket has that one
    nuvio::for_each_tcp_socket(port, [&](const TcpSocket& socket) {
        visit(socket);
        return true;
    });
}

void shut_down(uint16_t port, bool listening, int how) {
    for_each_socket(port, [=](const TcpSocket& socket) {
        if (is_listener(socket.own.get()) == listening) {
            shutdown(socket.own.get(), how);
        }
    });
}

}  // namespace

void signal_connections(uint16_t port, int signal) {
    for_each_socket(port, [signal](const TcpSocket& socket) {
        const int fd = socket.own.get();
        if (is_listener(fd)) {
            const f_owner_ex owner{.type = F_OWNER_TID, .pid = gettid()};
            fcntl(fd, F_SETOWN_EX, &owner);
            fcntl(fd, F_SETSIG, signal);
            fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) | O_ASYNC);
        }
    });
}

void shut_down_server_sockets(uint16_t port) {
    // Listeners first: after that no further connection can appear.
    shut_down(port, true, SHUT_RDWR);
    shut_down(port, false, SHUT_RD);
}

void close_server_sockets(uint16_t port) {
    for_each_socket(port, [](const TcpSocket& socket) { close(socket.fd); });
}

void close_listeners(uint16_t port) {
    for_each_socket(port, [](const TcpSocket& socket) {
        if (is_listener(socket.own.get())) {
            close(socket.fd);
        }
    });
}

connection_socket::connection_socket(uint16_t local_port, const char* remote_address,
                                     uint16_t remote_port) {
    nuvio::for_each_tcp_socket(local_port, [&](const TcpSocket& socket) {
        if (nuvio::has_peer(socket.own.get(), remote_address, remote_port)) {
            m_socket = std::move(socket.own);
        }
        return !m_socket;
    });
}

int connection_socket::readable_bytes() const {
    int count = 0;
    return m_socket && ioctl(m_socket.get(), FIONREAD, &count) == 0 ? count : 0;
}

bool connection_socket::has_ended() const {
    char next = 0;
    // A connection that was reset has no peer any more.
    return m_socket && recv(m_socket.get(), &next, sizeof(next), MSG_PEEK | MSG_DONTWAIT) == 0 &&
           nuvio::has_peer(m_socket.get());
}

void connection_socket::send(std::string_view text) const {
    ::send(m_socket.get(), text.data(), text.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
}

void connection_socket::close_gently(int patience_ms) const {
    using std::chrono::steady_clock;
    if (!m_socket) {
        return;
    }
    shutdown(m_socket.get(), SHUT_WR);
    const auto deadline = steady_clock::now() + std::chrono::milliseconds(patience_ms);
    std::array<char, 4096> dropped;
    pollfd readable{.fd = m_socket.get(), .events = POLLIN, .revents = 0};
    for (;;) {
        const auto left =
            std::chrono::ceil<std::chrono::milliseconds>(deadline - steady_clock::now());
        if (left.count() <= 0 || poll(&readable, 1, static_cast<int>(left.count())) <= 0 ||
            recv(m_socket.get(), dropped.data(), dropped.size(), MSG_DONTWAIT) <= 0) {
            break;
        }
    }
    shutdown(m_socket.get(), SHUT_RD);
}
