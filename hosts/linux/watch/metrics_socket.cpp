#include "watch/metrics_socket.h"

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <string_view>

#include "watch/metrics_page.h"

namespace nuvio::host {

namespace {

constexpr size_t kMaxPeers = 4;
constexpr size_t kMaxRequestBytes = 4096;
constexpr std::chrono::seconds kPeerPatience{10};
constexpr std::chrono::seconds kWithoutDescriptors{5};

UniqueFd make_socket() {
    return UniqueFd(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
}

// 0, or an errno value.
int bind_to(const UniqueFd& listener, const std::string& path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof address.sun_path) {
        return ENAMETOOLONG;
    }
    path.copy(address.sun_path, path.size());
    const auto* name = reinterpret_cast<const sockaddr*>(&address);
    if (::bind(listener.get(), name, sizeof address) == 0) {
        return 0;
    }
    if (errno != EADDRINUSE) {
        return errno;
    }
    // A socket that nobody listens on any more; anything else in the place stays.
    if (::connect(make_socket().get(), name, sizeof address) == 0 || errno != ECONNREFUSED) {
        return EADDRINUSE;
    }
    struct stat there {};
    if (::lstat(path.c_str(), &there) != 0 || !S_ISSOCK(there.st_mode)) {
        return EADDRINUSE;
    }
    ::unlink(path.c_str());
    return ::bind(listener.get(), name, sizeof address) == 0 ? 0 : errno;
}

std::string response(std::string_view status, std::string_view body) {
    return "HTTP/1.1 " + std::string(status) +
           "\r\nContent-Type: text/plain; version=0.0.4; charset=utf-8\r\nContent-Length: " +
           std::to_string(body.size()) + "\r\nConnection: close\r\n\r\n" + std::string(body);
}

bool is_whole(const std::string& request) {
    return request.find("\r\n\r\n") != request.npos || request.find("\n\n") != request.npos;
}

}  // namespace

void MetricsSocket::open() {
    if (m_path.empty()) {
        return;
    }
    UniqueFd listener = make_socket();
    int error = listener ? bind_to(listener, m_path) : errno;
    if (error == 0) {
        ::chmod(m_path.c_str(), S_IRUSR | S_IWUSR | S_IRGRP | S_IWGRP);
        error = ::listen(listener.get(), SOMAXCONN) == 0 ? 0 : errno;
    }
    if (error != 0) {
        syslog(LOG_ERR, "nuvio-host: no metrics at %s: %s", m_path.c_str(), std::strerror(error));
        return;
    }
    m_listener = std::move(listener);
}

void MetricsSocket::close() {
    m_peers.clear();
    if (m_listener) {
        m_listener.reset();
        ::unlink(m_path.c_str());
    }
}

void MetricsSocket::prepare(std::vector<pollfd>& descriptors,
                            std::optional<Clock::time_point>& deadline) {
    m_first = descriptors.size();
    if (!m_listener) {
        return;
    }
    const auto not_after = [&deadline](Clock::time_point due) {
        deadline = deadline ? std::min(*deadline, due) : due;
    };
    descriptors.push_back({m_rest ? -1 : m_listener.get(), POLLIN, 0});
    for (const Peer& peer : m_peers) {
        const auto events = static_cast<short>(peer.answer.empty() ? POLLIN : POLLOUT);
        descriptors.push_back({peer.fd.get(), events, 0});
        not_after(peer.until);
    }
    if (m_rest) {
        not_after(*m_rest);
    }
}

void MetricsSocket::dispatch(const std::vector<pollfd>& descriptors) {
    if (!m_listener) {
        return;
    }
    const auto now = Clock::now();
    size_t index = m_first;
    const bool has_callers = descriptors[index++].revents != 0;
    std::erase_if(m_peers, [&](Peer& peer) {
        const bool ready = descriptors[index++].revents != 0;
        return (ready && !serve(peer)) || now >= peer.until;
    });
    if (m_rest && now >= *m_rest) {
        m_rest.reset();
    }
    if (has_callers) {
        accept_peers();
    }
}

void MetricsSocket::accept_peers() {
    UniqueFd fd(::accept4(m_listener.get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
    if (!fd) {
        if (errno != EAGAIN && errno != ECONNABORTED && errno != EINTR) {
            m_rest = Clock::now() + kWithoutDescriptors;
        }
        return;
    }
    if (m_peers.size() == kMaxPeers) {
        m_peers.pop_front();
    }
    m_peers.push_back({std::move(fd), Clock::now() + kPeerPatience, {}, {}, 0});
}

std::string MetricsSocket::answer_to(const std::string& request) const {
    if (!request.starts_with("GET ")) {
        return response("405 Method Not Allowed", "");
    }
    return request.starts_with("GET /metrics ") ? response("200 OK", metrics_page(m_device.state()))
                                                : response("404 Not Found", "");
}

// False when all is done, or the peer has gone.
bool MetricsSocket::serve(Peer& peer) const {
    if (peer.answer.empty()) {
        std::array<char, 1024> piece{};
        const ssize_t size = ::recv(peer.fd.get(), piece.data(), piece.size(), 0);
        if (size <= 0) {
            return size < 0 && (errno == EAGAIN || errno == EINTR);
        }
        peer.request.append(piece.data(), static_cast<size_t>(size));
        if (!is_whole(peer.request)) {
            return peer.request.size() < kMaxRequestBytes;
        }
        peer.answer = answer_to(peer.request);
    }
    const ssize_t size = ::send(peer.fd.get(), peer.answer.data() + peer.sent,
                                peer.answer.size() - peer.sent, MSG_NOSIGNAL);
    if (size < 0) {
        return errno == EAGAIN || errno == EINTR;
    }
    peer.sent += static_cast<size_t>(size);
    return peer.sent < peer.answer.size();
}

}  // namespace nuvio::host
