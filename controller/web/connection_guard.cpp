#include "controller/web/connection_guard.h"

#include <arpa/inet.h>
#include <dirent.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <algorithm>
#include <memory>

#include "common/number.h"
#include "common/released_by.h"
#include "common/unique_fd.h"

namespace nuvio::controller {

namespace {

constexpr auto kNever = ConnectionGuard::Clock::time_point::max();
constexpr std::chrono::seconds kHeadPatience{5};

uint64_t to_peer(in_addr address, uint16_t port) {
    return uint64_t{ntohl(address.s_addr)} << 16U | port;
}

}  // namespace

ConnectionGuard::ConnectionGuard(uint16_t port) : m_port(port), m_thread([this] { run(); }) {}

ConnectionGuard::~ConnectionGuard() {
    {
        const std::scoped_lock lock(m_mutex);
        m_is_ending = true;
    }
    m_on_change.notify_one();
    m_thread.join();
}

// 0: no connection of the server's.
ConnectionGuard::Peer ConnectionGuard::peer_of(int fd, uint16_t local_port) {
    sockaddr_in own{};
    sockaddr_in peer{};
    socklen_t own_size = sizeof own;
    socklen_t peer_size = sizeof peer;
    const bool is_ours = getsockname(fd, reinterpret_cast<sockaddr*>(&own), &own_size) == 0 &&
                         own.sin_family == AF_INET && ntohs(own.sin_port) == local_port &&
                         getpeername(fd, reinterpret_cast<sockaddr*>(&peer), &peer_size) == 0;
    return is_ours ? to_peer(peer.sin_addr, ntohs(peer.sin_port)) : 0;
}

std::vector<ConnectionGuard::Socket> ConnectionGuard::sockets() const {
    std::vector<Socket> found;
    const std::unique_ptr<DIR, ReleasedBy<closedir>> folder(opendir("/proc/self/fd"));
    while (const dirent* entry = folder != nullptr ? readdir(folder.get()) : nullptr) {
        const int fd = to_number<int>(entry->d_name).value_or(-1);
        const Peer peer = fd >= 0 ? peer_of(fd, m_port) : 0;
        if (peer != 0) {
            found.push_back({fd, peer});
        }
    }
    return found;
}

// Those that are gone are forgotten, new ones have from now on.
void ConnectionGuard::note_newcomers() {
    std::map<Peer, Entry> now;
    for (const Socket& socket : sockets()) {
        const bool has_request = std::ranges::any_of(
            m_entries, [&](const auto& entry) { return entry.second.socket.peer == socket.peer; });
        if (!has_request) {
            const auto known = m_newcomers.find(socket.peer);
            now[socket.peer] = {socket, known != m_newcomers.end() ? known->second.deadline
                                                                   : Clock::now() + kHeadPatience};
        }
    }
    m_newcomers = std::move(now);
}

void ConnectionGuard::look() {
    const std::scoped_lock lock(m_mutex);
    note_newcomers();
    m_on_change.notify_one();
}

void ConnectionGuard::begin(const mg_connection* connection, std::chrono::seconds deadline) {
    const mg_request_info* info = mg_get_request_info(connection);
    in_addr address{};
    inet_pton(AF_INET, info->remote_addr, &address);
    const Peer peer = to_peer(address, static_cast<uint16_t>(info->remote_port));
    const std::scoped_lock lock(m_mutex);
    m_newcomers.erase(peer);
    const std::vector<Socket> all = sockets();
    const auto socket = std::ranges::find(all, peer, &Socket::peer);
    if (socket != all.end()) {
        m_entries[connection] = {*socket, Clock::now() + deadline};
        m_on_change.notify_one();
    }
}

void ConnectionGuard::end(const mg_connection* connection) {
    const std::scoped_lock lock(m_mutex);
    m_entries.erase(connection);
}

void ConnectionGuard::set_deadline(const mg_connection* connection, std::chrono::seconds after) {
    const std::scoped_lock lock(m_mutex);
    const auto entry = m_entries.find(connection);
    if (entry != m_entries.end()) {
        entry->second.deadline = Clock::now() + after;
        m_on_change.notify_one();
    }
}

void ConnectionGuard::clear_deadline(const mg_connection* connection) {
    const std::scoped_lock lock(m_mutex);
    const auto entry = m_entries.find(connection);
    if (entry != m_entries.end()) {
        entry->second.deadline = kNever;
    }
}

void ConnectionGuard::cut(const mg_connection* connection) {
    const std::scoped_lock lock(m_mutex);
    const auto entry = m_entries.find(connection);
    if (entry != m_entries.end()) {
        shutdown(entry->second.socket.fd, SHUT_RDWR);
    }
}

void ConnectionGuard::cut_all() {
    const std::scoped_lock lock(m_mutex);
    for (const Socket& socket : sockets()) {
        cut_newcomer(socket);
    }
}

// Its worker may close it at any moment, and the number become another socket's: a duplicate stays
// what it is while it is looked at.
void ConnectionGuard::cut_newcomer(Socket socket) const {
    const UniqueFd same(fcntl(socket.fd, F_DUPFD_CLOEXEC, 0));
    if (same && peer_of(same.get(), m_port) == socket.peer) {
        shutdown(same.get(), SHUT_RDWR);
    }
}

void ConnectionGuard::run() {
    std::unique_lock lock(m_mutex);
    while (!m_is_ending) {
        const Clock::time_point now = Clock::now();
        Clock::time_point next = kNever;
        for (auto& [connection, entry] : m_entries) {
            if (entry.deadline <= now) {
                shutdown(entry.socket.fd, SHUT_RDWR);
                entry.deadline = kNever;
            }
            next = std::min(next, entry.deadline);
        }
        for (auto& [peer, entry] : m_newcomers) {
            if (entry.deadline <= now) {
                cut_newcomer(entry.socket);
                entry.deadline = kNever;
            }
            next = std::min(next, entry.deadline);
        }
        if (next == kNever) {
            m_on_change.wait(lock);
        } else {
            m_on_change.wait_until(lock, next);
            note_newcomers();
        }
    }
}

}  // namespace nuvio::controller
