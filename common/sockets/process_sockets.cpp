#include "common/sockets/process_sockets.h"

#include <arpa/inet.h>
#include <dirent.h>
#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <memory>
#include <optional>
#include <string_view>

#include "common/number.h"
#include "common/released_by.h"

namespace nuvio {

namespace {

using AddressCall = int (*)(int, sockaddr*, socklen_t*);

// One end's, with getsockname or getpeername; of family AF_UNSPEC where there is none.
sockaddr_storage address_of(int fd, AddressCall call) {
    sockaddr_storage address{};
    socklen_t size = sizeof address;
    return call(fd, reinterpret_cast<sockaddr*>(&address), &size) == 0 ? address
                                                                       : sockaddr_storage{};
}

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

int socket_option(int fd, int option) {
    int value = 0;
    socklen_t size = sizeof value;
    return getsockopt(fd, SOL_SOCKET, option, &value, &size) == 0 ? value : -1;
}

bool is_tcp(int fd) {
    const int domain = socket_option(fd, SO_DOMAIN);
    return (domain == AF_INET || domain == AF_INET6) && socket_option(fd, SO_TYPE) == SOCK_STREAM;
}

// The number in "socket:[4711]", which the kernel tells without asking anybody; none where the link
// names anything else. (To follow it would ask the server of a file on the network.)
std::optional<SocketNumber> socket_number(DIR* directory, const dirent* entry) {
    constexpr std::string_view kSocket = "socket:[";
    std::array<char, 64> link{};
    const ssize_t length = readlinkat(dirfd(directory), entry->d_name, link.data(), link.size());
    const std::string_view text(link.data(), length < 0 ? 0 : static_cast<size_t>(length));
    return text.starts_with(kSocket) && text.ends_with(']')
               ? to_number<SocketNumber>(
                     text.substr(kSocket.size(), text.size() - kSocket.size() - 1))
               : std::nullopt;
}

}  // namespace

bool for_each_socket_of(const char* descriptors,
                        const std::function<bool(int fd, SocketNumber number)>& visit) {
    const std::unique_ptr<DIR, ReleasedBy<closedir>> directory(opendir(descriptors));
    if (directory == nullptr) {
        return false;
    }
    while (const dirent* entry = readdir(directory.get())) {
        const auto number = socket_number(directory.get(), entry);
        const auto fd = to_number<int>(entry->d_name);
        if (number && fd && !visit(*fd, *number)) {
            break;
        }
    }
    return true;
}

// Only what is a socket is duplicated, since closing a second descriptor of a file would drop its
// locks. The descriptor may have become another's since its link was read: what counts is the
// number of the duplicate.
bool for_each_tcp_socket(const std::function<bool(const TcpSocket&)>& visit) {
    return for_each_socket_of("/proc/self/fd", [&](int fd, SocketNumber) {
        UniqueFd own(fcntl(fd, F_DUPFD_CLOEXEC, 0));
        struct stat status {};
        return !own || !is_tcp(own.get()) || fstat(own.get(), &status) != 0 ||
               visit(TcpSocket{fd, status.st_ino, own});
    });
}

void for_each_tcp_socket(uint16_t local_port, const std::function<bool(const TcpSocket&)>& visit) {
    for_each_tcp_socket([&](const TcpSocket& socket) {
        return port_of(address_of(socket.own.get(), getsockname)) != local_port || visit(socket);
    });
}

bool is_listener(int fd) {
    return socket_option(fd, SO_ACCEPTCONN) == 1;
}

bool has_peer(int fd) {
    return port_of(address_of(fd, getpeername)) != 0;
}

bool has_peer(int fd, const char* address, uint16_t port) {
    const sockaddr_storage peer = address_of(fd, getpeername);
    std::array<char, NI_MAXHOST> host{};
    return port_of(peer) == port &&
           getnameinfo(reinterpret_cast<const sockaddr*>(&peer), sizeof peer, host.data(),
                       host.size(), nullptr, 0, NI_NUMERICHOST) == 0 &&
           std::string_view(host.data()) == address;
}

}  // namespace nuvio
