#include "local_config/civetweb/server_sockets.h"

#include <arpa/inet.h>
#include <dirent.h>
#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <cstring>
#include <memory>
#include <optional>
#include <string_view>

#include "common/number.h"
#include "common/released_by.h"
#include "common/unique_fd.h"
#include "utility/check.h"

namespace {

uint16_t port_of(const sockaddr_storage& address) {
    switch (address.ss_family) {
        case AF_INET:
            return ntohs(reinterpret_cast<const sockaddr_in&>(address).sin_port);
        case AF_INET6:
            return ntohs(reinterpret_cast<const sockaddr_in6&>(address).sin6_port);
        default:
            return 0;
    }
}

using address_call = int (*)(int, sockaddr*, socklen_t*);

// Port of one end, with getsockname or getpeername; 0 when there is none.
uint16_t port_of(int fd, address_call address_of) {
    sockaddr_storage address{};
    socklen_t size = sizeof(address);
    const bool known = address_of(fd, reinterpret_cast<sockaddr*>(&address), &size) == 0;
    return known ? port_of(address) : 0;
}

int socket_option(int fd, int option) {
    int value = 0;
    socklen_t size = sizeof(value);
    return getsockopt(fd, SOL_SOCKET, option, &value, &size) == 0 ? value : -1;
}

// The number in "socket:[4711]", which the kernel tells without asking anybody; none where the link
// names anything else. (To follow it would ask the server of a file on the network.)
std::optional<uint64_t> socket_number(DIR* directory, const dirent* entry) {
    constexpr std::string_view kSocket = "socket:[";
    std::array<char, 64> link{};
    const ssize_t length = readlinkat(dirfd(directory), entry->d_name, link.data(), link.size());
    const std::string_view text(link.data(), length < 0 ? 0 : static_cast<size_t>(length));
    return text.starts_with(kSocket) && text.ends_with(']')
               ? nuvio::to_number<uint64_t>(
                     text.substr(kSocket.size(), text.size() - kSocket.size() - 1))
               : std::nullopt;
}

struct found_socket {
    int fd;                // the owner's
    uint64_t number;       // the kernel's
    nuvio::UniqueFd& own;  // a second descriptor
};

// Shows `visit` each TCP socket bound to `local_port` until it returns false, with a second
// descriptor to work with, since the original can be closed by its owner, and its number reused, at
// any moment. Only sockets are duplicated, since closing a second descriptor of a file would drop
// its locks.
template <typename Visit>
void for_each_socket(uint16_t local_port, Visit visit) {
    NUV_CHECK(local_port != 0);  // every local socket has that one
    const std::unique_ptr<DIR, nuvio::ReleasedBy<closedir>> directory(opendir("/proc/self/fd"));
    if (directory == nullptr) {
        return;
    }
    while (const dirent* entry = readdir(directory.get())) {
        const auto number = socket_number(directory.get(), entry);
        const auto fd = nuvio::to_number<int>(entry->d_name);
        if (!number || !fd) {
            continue;
        }
        nuvio::UniqueFd copy(fcntl(*fd, F_DUPFD_CLOEXEC, 0));
        if (socket_option(copy.get(), SO_TYPE) == SOCK_STREAM &&
            port_of(copy.get(), getsockname) == local_port &&
            !visit(found_socket{*fd, *number, copy})) {
            return;
        }
    }
}

bool is_listener(const nuvio::UniqueFd& socket) {
    return socket_option(socket.get(), SO_ACCEPTCONN) == 1;
}

void shut_down(uint16_t port, bool listening, int how) {
    for_each_socket(port, [=](const found_socket& socket) {
        if (is_listener(socket.own) == listening) {
            shutdown(socket.own.get(), how);
        }
        return true;
    });
}

bool has_peer(const nuvio::UniqueFd& socket, const char* address, uint16_t port) {
    sockaddr_storage peer{};
    socklen_t size = sizeof(peer);
    auto* const name = reinterpret_cast<sockaddr*>(&peer);
    std::array<char, NI_MAXHOST> host{};
    return getpeername(socket.get(), name, &size) == 0 && port_of(peer) == port &&
           getnameinfo(name, size, host.data(), host.size(), nullptr, 0, NI_NUMERICHOST) == 0 &&
           std::strcmp(host.data(), address) == 0;
}

int find_connection(uint16_t local_port, const char* remote_address, uint16_t remote_port) {
    int found = -1;
    for_each_socket(local_port, [&](const found_socket& socket) {
        if (has_peer(socket.own, remote_address, remote_port)) {
            found = socket.own.release();
        }
        return found < 0;
    });
    return found;
}

}  // namespace

void signal_connections(uint16_t port, int signal) {
    for_each_socket(port, [signal](const found_socket& found) {
        const nuvio::UniqueFd& socket = found.own;
        if (is_listener(socket)) {
            const f_owner_ex owner{.type = F_OWNER_TID, .pid = gettid()};
            fcntl(socket.get(), F_SETOWN_EX, &owner);
            fcntl(socket.get(), F_SETSIG, signal);
            fcntl(socket.get(), F_SETFL, fcntl(socket.get(), F_GETFL) | O_ASYNC);
        }
        return true;
    });
}

void shut_down_connections(uint16_t port, const std::function<bool(uint64_t id)>& is_over) {
    for_each_socket(port, [&](const found_socket& socket) {
        if (!is_listener(socket.own) && is_over(socket.number)) {
            shutdown(socket.own.get(), SHUT_RD);
        }
        return true;
    });
}

void shut_down_server_sockets(uint16_t port) {
    // Listeners first: after that no further connection can appear.
    shut_down(port, true, SHUT_RDWR);
    shut_down(port, false, SHUT_RD);
}

void close_server_sockets(uint16_t port) {
    for_each_socket(port, [](const found_socket& socket) {
        close(socket.fd);
        return true;
    });
}

connection_socket::connection_socket(uint16_t local_port, const char* remote_address,
                                     uint16_t remote_port)
    : m_fd(find_connection(local_port, remote_address, remote_port)) {}

connection_socket::~connection_socket() {
    if (m_fd >= 0) {
        close(m_fd);
    }
}

int connection_socket::readable_bytes() const {
    int count = 0;
    return m_fd >= 0 && ioctl(m_fd, FIONREAD, &count) == 0 ? count : 0;
}

bool connection_socket::has_ended() const {
    char next = 0;
    // A connection that was reset has no peer any more.
    return m_fd >= 0 && recv(m_fd, &next, sizeof(next), MSG_PEEK | MSG_DONTWAIT) == 0 &&
           port_of(m_fd, getpeername) != 0;
}

void connection_socket::send(std::string_view text) const {
    ::send(m_fd, text.data(), text.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
}

void connection_socket::close_gently(int patience_ms) const {
    using std::chrono::steady_clock;
    if (m_fd < 0) {
        return;
    }
    shutdown(m_fd, SHUT_WR);
    const auto deadline = steady_clock::now() + std::chrono::milliseconds(patience_ms);
    std::array<char, 4096> dropped;
    pollfd readable{.fd = m_fd, .events = POLLIN, .revents = 0};
    for (;;) {
        const auto left =
            std::chrono::ceil<std::chrono::milliseconds>(deadline - steady_clock::now());
        if (left.count() <= 0 || poll(&readable, 1, static_cast<int>(left.count())) <= 0 ||
            recv(m_fd, dropped.data(), dropped.size(), MSG_DONTWAIT) <= 0) {
            break;
        }
    }
    shutdown(m_fd, SHUT_RD);
}
