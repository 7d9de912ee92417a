#include "controller/web/connection_guard.h"

#include <arpa/inet.h>
#include <dirent.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <memory>
#include <string>

#include "common/number.h"
#include "common/released_by.h"

namespace nuvio::controller {

namespace {

constexpr auto kNever = ConnectionGuard::Clock::time_point::max();

bool has_peer(int fd, const std::string& address, int port) {
    sockaddr_in peer{};
    socklen_t size = sizeof peer;
    std::array<char, INET_ADDRSTRLEN> text{};
    return getpeername(fd, reinterpret_cast<sockaddr*>(&peer), &size) == 0 &&
           peer.sin_family == AF_INET && ntohs(peer.sin_port) == port &&
           inet_ntop(AF_INET, &peer.sin_addr, text.data(), text.size()) != nullptr &&
           address == text.data();
}

// CivetWeb shows no connection's descriptor, so it is looked for by the peer. -1: not found.
int descriptor_of(const mg_connection* connection) {
    const mg_request_info* info = mg_get_request_info(connection);
    const std::unique_ptr<DIR, ReleasedBy<closedir>> folder(opendir("/proc/self/fd"));
    while (const dirent* entry = folder != nullptr ? readdir(folder.get()) : nullptr) {
        const int fd = to_number<int>(entry->d_name).value_or(-1);
        if (fd >= 0 && has_peer(fd, info->remote_addr, info->remote_port)) {
            return fd;
        }
    }
    return -1;
}

}  // namespace

ConnectionGuard::ConnectionGuard() : m_thread([this] { run(); }) {}

ConnectionGuard::~ConnectionGuard() {
    {
        const std::scoped_lock lock(m_mutex);
        m_is_ending = true;
    }
    m_on_change.notify_one();
    m_thread.join();
}

void ConnectionGuard::begin(const mg_connection* connection) {
    const int fd = descriptor_of(connection);
    const std::scoped_lock lock(m_mutex);
    m_entries[connection] = {fd, kNever};
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
        shutdown(entry->second.fd, SHUT_RDWR);
    }
}

void ConnectionGuard::cut_all() {
    const std::scoped_lock lock(m_mutex);
    for (const auto& [connection, entry] : m_entries) {
        shutdown(entry.fd, SHUT_RDWR);
    }
}

void ConnectionGuard::run() {
    std::unique_lock lock(m_mutex);
    while (!m_is_ending) {
        const Clock::time_point now = Clock::now();
        Clock::time_point next = kNever;
        for (auto& [connection, entry] : m_entries) {
            if (entry.deadline <= now) {
                shutdown(entry.fd, SHUT_RDWR);
                entry.deadline = kNever;
            }
            next = std::min(next, entry.deadline);
        }
        if (next == kNever) {
            m_on_change.wait(lock);
        } else {
            m_on_change.wait_until(lock, next);
        }
    }
}

}  // namespace nuvio::controller
