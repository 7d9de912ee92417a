// The other end of a connection, on loopback and in the same process: what is listened on, taken
// and sent, in steps that a fuzzer's input names.
#pragma once

#include <arpa/inet.h>
#include <sys/socket.h>
#include <sys/time.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>

#include "common/unique_fd.h"
#include "fuzz/expect.h"

// Reads an input from its beginning to its end; zeros from there on.
class Script {
  public:
    Script(const uint8_t* data, size_t size) : m_left(data, size) {}
    bool is_over() const { return m_left.empty(); }
    uint8_t byte() { return is_over() ? uint8_t{0} : static_cast<uint8_t>(bytes(1)[0]); }
    uint16_t word() { return static_cast<uint16_t>(byte() << 8 | byte()); }
    std::string_view bytes(size_t count) {
        const auto taken = m_left.first(std::min(count, m_left.size()));
        m_left = m_left.subspan(taken.size());
        return {reinterpret_cast<const char*>(taken.data()), taken.size()};
    }

  private:
    std::span<const uint8_t> m_left;
};

class Listener {
  public:
    Listener() : m_socket(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t size = sizeof address;
        auto* const any = reinterpret_cast<sockaddr*>(&address);
        FUZZ_EXPECT(bind(m_socket.get(), any, size) == 0 && listen(m_socket.get(), 16) == 0);
        FUZZ_EXPECT(getsockname(m_socket.get(), any, &size) == 0);
        m_port = ntohs(address.sin_port);
    }
    uint16_t port() const { return m_port; }
    // The next connection with the head of its request; none once it is closed.
    nuvio::UniqueFd accept(std::string* head) {
        nuvio::UniqueFd peer(::accept4(m_socket.get(), nullptr, nullptr, SOCK_CLOEXEC));
        const timeval patience{0, 500'000};
        setsockopt(peer.get(), SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
        setsockopt(peer.get(), SOL_SOCKET, SO_SNDTIMEO, &patience, sizeof patience);
        char byte = 0;
        for (head->clear(); !head->ends_with("\r\n\r\n") && recv(peer.get(), &byte, 1, 0) == 1;) {
            *head += byte;
        }
        return peer;
    }
    // Any thread.
    void close() { shutdown(m_socket.get(), SHUT_RDWR); }

  private:
    nuvio::UniqueFd m_socket;
    uint16_t m_port = 0;
};

inline bool send_all(const nuvio::UniqueFd& peer, std::string_view bytes) {
    while (!bytes.empty()) {
        const ssize_t sent = send(peer.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL);
        if (sent <= 0) {
            return false;
        }
        bytes.remove_prefix(static_cast<size_t>(sent));
    }
    return true;
}
