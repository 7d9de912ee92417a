// The HTTP library's own sockets, reached through the process's descriptor table (common/sockets).
//
// The library hides its descriptors, yet some waits inside it can only be ended from outside:
// mg_stop lets its threads sleep out their polls (up to 2 s), and a peer that sends its body one
// byte at a time holds the only worker for as long as it likes. Shutting a socket down ends such a
// wait at once; the library stays the owner and closes the descriptor itself.
//
// Every function may be called from any thread. Where /proc is missing nothing is found, and the
// waits take their time.
#pragma once

#include <cstdint>
#include <string_view>

#include "common/unique_fd.h"

// From now on the calling thread gets `signal` for each connection that is made to the server,
// whether or not the library has accepted it by then. (Readiness of the listener would be missed
// whenever the library is the faster one to accept.)
void signal_connections(uint16_t port, int signal);

// Ends the waits of a server that is about to be stopped: its listeners accept nothing more, its
// connections read the end of their streams. Answers under way are still sent.
void shut_down_server_sockets(uint16_t port);

// Closes what a stopped server has left open: mg_stop forgets the connections that were waiting for
// the worker. Only once mg_stop has returned, and before the next server starts.
void close_server_sockets(uint16_t port);

// The same for a server that could not be started, which has had no connections: its listeners
// alone. The port may be that of a connection that this process has made to somebody.
void close_listeners(uint16_t port);

// A connection of this process by its local port and its peer; holds a second descriptor on it.
class connection_socket {
  public:
    // `remote_address`: in digits, as the library gives it.
    connection_socket(uint16_t local_port, const char* remote_address, uint16_t remote_port);

    // Bytes that can be read without waiting.
    int readable_bytes() const;
    // The stream has come to its end, all of it was read and nothing was lost: the peer closed its
    // sending side, or shut_down_server_sockets the receiving one.
    bool has_ended() const;
    // A text short enough for an empty send buffer: what does not fit is not sent.
    void send(std::string_view text) const;
    // Says that nothing more will be sent, drops what still arrives until the peer closes or
    // `patience_ms` is over, and then refuses the rest. Closing without it would make the peer lose
    // an answer that it has not read yet.
    void close_gently(int patience_ms) const;

  private:
    nuvio::UniqueFd m_socket;  // none: not found
};
