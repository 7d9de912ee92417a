// A port that nobody has, for a server of a test's own.
#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>

inline sockaddr_in loopback(uint16_t port) {
    return {AF_INET, htons(port), {htonl(INADDR_LOOPBACK)}, {}};
}

// Below the ports that the kernel gives to clients: one that knocks on a closed port there may be
// connected to itself.
inline uint16_t free_port() {
    for (uint32_t attempt = 0;; ++attempt) {
        const auto port = static_cast<uint16_t>(20'000 + (getpid() + attempt) % 10'000);
        const sockaddr_in address = loopback(port);
        const int fd = socket(AF_INET, SOCK_STREAM, 0);
        const int rc = bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address));
        close(fd);
        if (rc == 0) {
            return port;
        }
    }
}
