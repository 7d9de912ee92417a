// The two kinds of WebSocket: a page's, which is sent the state whenever it changes, and a
// device's, the channel of its session (docs/session.md).
//
// Threads  each socket has a thread of its own that writes, so that a peer that does not read holds
//          up nobody else; such a peer is cut off after 20 s. The handlers run on CivetWeb's
//          workers.
// Silence  who says nothing is pinged, and cut off where no answer comes: a device sooner while it
//          plays, and when it was asked something.
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
#include "controller/web/places.h"

namespace nuvio::controller {

class Sockets {
  public:
    // Borrows all. `state`: the message for pages at a version.
    Sockets(House& house, Changes& changes, HttpGuard& guard,
            std::function<std::string(uint64_t)> state);
    ~Sockets();
    Sockets(const Sockets&) = delete;
    Sockets& operator=(const Sockets&) = delete;

    // Registers both; handshakes have been looked at by then. Before the first request.
    void put_on(mg_context* context);
    // A place for a socket before its handshake: false, there is none for that peer, by its address
    // or its token.
    bool reserve_page(const mg_connection* connection, const std::string& address);
    bool reserve_channel(const mg_connection* connection, const std::string& token);
    // The request is over, whatever became of it, and its socket closed.
    void give_back(const mg_connection* connection);

  private:
    class Writer;
    class Channel;
    class Page;

    template <typename Kind>
    using Map = std::map<const mg_connection*, std::shared_ptr<Kind>>;

    template <typename Kind>
    std::shared_ptr<Kind> begin(Map<Kind>& sockets, mg_connection* connection);
    template <typename Kind>
    std::shared_ptr<Kind> find(Map<Kind>& sockets, const mg_connection* connection, bool take);

    bool reserve(Places& places, const mg_connection* connection, const std::string& peer);

    static void on_page_ready(mg_connection* connection, void* self);
    static int on_page_data(mg_connection* connection, int bits, char* data, size_t size,
                            void* self);
    static void on_page_closed(const mg_connection* connection, void* self);
    static void on_channel_ready(mg_connection* connection, void* self);
    static int on_channel_data(mg_connection* connection, int bits, char* data, size_t size,
                               void* self);
    static void on_channel_closed(const mg_connection* connection, void* self);

    House& m_house;
    Changes& m_changes;
    HttpGuard& m_guard;
    const std::function<std::string(uint64_t)> m_state;
    Places m_page_places{16, 12};
    Places m_channel_places{16, 3};  // a device may be back before its old one is known to be gone
    std::mutex m_mutex;              // of what follows
    std::map<const mg_connection*, Places::Place> m_places;
    Map<Page> m_pages;
    Map<Channel> m_channels;
};

}  // namespace nuvio::controller
