// One WebSocket to a session's server, made anew whenever it breaks.
//
// Threads     a thread of its own does all that can wait: names, connecting, TLS, writing. Every
//             public call belongs to the loop's thread and returns at once, but for
//             wait_all_closed.
//             `on_change` and `log` come from the link's thread; `on_change` never after the
//             destructor.
// Bounds      nothing grows, whatever the server sends or does not read: a message's bytes, the
//             commands and answers that wait. What is above stays in the network's buffers. So does
//             what would take more than a tenth of a core.
// Destruction ends the connection without a word where close() has not been called; does not wait.
//             A thread that hangs (on a name) is left to itself and ends when it is answered.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <variant>

#include "local/channel/messages.h"

namespace local_core {

struct LinkTarget {
    bool tls = false;
    std::string host;  // a name or an address, the latter without brackets
    uint16_t port = 0;
    std::string path;  // with the query
    std::string token;
    uint64_t expiry_s = 0;  // since 1970; 0: none
    // A file of authorities to trust in the place of the system's; empty: the system's.
    std::string authorities;
    bool is_for_once = false;  // a connection that breaks, or can't be made, is not made anew
};

// None for a URL that is not ws:// or wss:// with a host, and for a token that no header can hold.
// Pure; any bytes.
std::optional<LinkTarget> link_target(std::string_view url, std::string_view token,
                                      uint64_t expiry_s);

class Link {
  public:
    static constexpr size_t kCommandsASecond = 50;
    static constexpr size_t kCommandBurst = 100;

    // Messages of which only the newest counts; in the order of sending.
    enum class Slot { hello, queue, played, track, state };
    static constexpr size_t kSlots = 5;

    // A command, or why there is none, and the connection that it came by.
    struct Incoming {
        uint64_t connection;
        std::variant<RemoteCommand, Refusal> message;
    };

    using Log = std::function<void(bool is_warning, const std::string& line)>;

    // Throws std::system_error when there is no thread to be had, or too many still hang.
    Link(LinkTarget target, std::function<void()> on_change, Log log);
    ~Link();
    Link(const Link&) = delete;
    Link& operator=(const Link&) = delete;

    // The connection's number, another one after each break; 0 while there is none. `on_change`
    // follows a change.
    uint64_t connection() const;
    std::optional<Incoming> take();

    // Both do nothing when the connection is not that one any more.
    void put(uint64_t connection, Slot slot, std::string text);
    void say(uint64_t connection, std::string text);

    // Says what waits, then goodbye, and ends. A server that does not listen has two seconds.
    void close(std::string goodbye);
    // Waits for the end of all that were closed, so long at most: before the process ends. False:
    // one of them hangs.
    static bool wait_all_closed(std::chrono::milliseconds patience);

    struct Shared;  // with its thread

  private:
    const std::shared_ptr<Shared> m_shared;
};

}  // namespace local_core
