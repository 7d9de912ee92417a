// The two kinds of WebSocket: a page's, which is sent the state whenever it changes, and a
// device's, the channel of its session (docs/session.md).
//
// Threads  each socket has a thread of its own that writes, so that a peer that does not read holds
//          up nobody else; such a peer is cut off after 20 s. The handlers run on CivetWeb's
//          workers.
#pragma once

#include <civetweb.h>

#include <atomic>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>

#include "common/http_guard/http_guard.h"
#include "controller/session/house.h"

namespace nuvio::controller {

class Sockets {
  public:
    static constexpr size_t kMaxPages = 16;
    static constexpr size_t kMaxChannels = 16;

    // Borrows all. `state`: the message for pages at a version.
    Sockets(House& house, Changes& changes, HttpGuard& guard,
            std::function<std::string(uint64_t)> state);
    ~Sockets();
    Sockets(const Sockets&) = delete;
    Sockets& operator=(const Sockets&) = delete;

    // Registers both; handshakes have been looked at by then. Before the first request.
    void put_on(mg_context* context);
    // Those that ask at once may all be told that there is room; one too many is cut off then.
    bool has_room_for_page() const;
    bool has_room_for_channel() const;

  private:
    class Writer;
    class Channel;
    class Page;

    template <typename Kind>
    using Map = std::map<const mg_connection*, std::shared_ptr<Kind>>;

    template <typename Kind>
    std::shared_ptr<Kind> begin(Map<Kind>& sockets, size_t most, mg_connection* connection);
    template <typename Kind>
    std::shared_ptr<Kind> find(Map<Kind>& sockets, const mg_connection* connection, bool take);

    static void on_page_ready(mg_connection* connection, void* self);
    static int on_page_data(mg_connection*, int bits, char*, size_t, void*);
    static void on_page_closed(const mg_connection* connection, void* self);
    static void on_channel_ready(mg_connection* connection, void* self);
    static int on_channel_data(mg_connection* connection, int bits, char* data, size_t size,
                               void* self);
    static void on_channel_closed(const mg_connection* connection, void* self);

    House& m_house;
    Changes& m_changes;
    HttpGuard& m_guard;
    const std::function<std::string(uint64_t)> m_state;
    mutable std::mutex m_mutex;
    Map<Page> m_pages;
    Map<Channel> m_channels;
};

}  // namespace nuvio::controller
