// The sockets of a process, found in the kernel's table of its descriptors: some libraries hide
// theirs, and what another program holds is told nowhere else.
//
// Any thread. Where /proc is missing nothing is found.
#pragma once

#include <cstdint>
#include <functional>

#include "common/unique_fd.h"

namespace nuvio {

// The kernel's number of a socket, which no other one has while it stands.
using SocketNumber = uint64_t;

// Shows `visit` the numbers of the sockets in a folder like /proc/self/fd and the descriptors they
// have there, until it returns false. False: the folder can't be read.
bool for_each_socket_of(const char* descriptors,
                        const std::function<bool(int fd, SocketNumber number)>& visit);

// A TCP socket of this process.
struct TcpSocket {
    int fd;  // the owner's; may be closed, and be another's, at any moment
    SocketNumber number;
    UniqueFd& own;  // a second descriptor, to work with
};

// Shows `visit` this process's TCP sockets, until it returns false. False: they can't be seen.
bool for_each_tcp_socket(const std::function<bool(const TcpSocket&)>& visit);
// Those alone that are bound to a local port; not 0.
void for_each_tcp_socket(uint16_t local_port, const std::function<bool(const TcpSocket&)>& visit);

bool is_listener(int fd);
// False too where the connection has broken.
bool has_peer(int fd);
// `address`: in digits.
bool has_peer(int fd, const char* address, uint16_t port);

}  // namespace nuvio
