// The controller's web server: the page, its API and its socket; the devices' content and channel.
// One port, IPv4 (Debian's CivetWeb has no IPv6).
//
// What may be asked by whom: nobody from a page of another site (403), but a link there may lead to
// the page. Page, API and covers are for
// the house, or, where a password is set, for who has it (Basic, and then a cookie). Content and
// channel are for devices with a session's token.
//
// Threads  made and destroyed by one; requests run on CivetWeb's workers.
#pragma once

#include <civetweb.h>

#include <memory>
#include <string>

#include "common/http_guard/http_guard.h"
#include "common/released_by.h"
#include "controller/base/settings.h"
#include "controller/session/house.h"
#include "controller/web/api.h"
#include "controller/web/content.h"
#include "controller/web/exchange.h"
#include "controller/web/places.h"
#include "controller/web/sockets.h"

namespace nuvio::controller {

class WebServer {
  public:
    // Borrows all.
    WebServer(const Settings& settings, Library& library, House& house, Changes& changes);
    // Ends every connection. The house has been closed, so that nothing waits in it.
    ~WebServer();
    WebServer(const WebServer&) = delete;
    WebServer& operator=(const WebServer&) = delete;

    // False, with a log line: the port can't be had.
    bool start();

  private:
    static int on_connection(const mg_connection* connection, void** data);
    static int on_request(mg_connection* connection);
    static void on_request_over(const mg_connection* connection, int);
    static int on_log(const mg_connection*, const char* message);

    int answer(Exchange& exchange);
    int serve(Exchange& exchange);
    int serve_house(Exchange& exchange);
    int serve_socket(Exchange& exchange);
    int serve_page(Exchange& exchange);
    int ask_for_password(Exchange& exchange);
    bool is_visit(const Exchange& exchange) const;
    bool is_allowed(const Exchange& exchange) const;
    bool has_password(const Exchange& exchange) const;
    bool has_cookie(const Exchange& exchange) const;
    std::string new_cookie(const Exchange& exchange) const;
    std::string base_of(const char* path) const;

    const Settings& m_settings;
    const std::string m_cookie;  // for who knew the password; another one each start
    HttpGuard m_guard;
    Api m_api;
    House& m_house;
    Content m_content;
    Sockets m_sockets;
    Places m_bodies{16, 12};  // on their way
    Places m_being_answered;  // but devices that fetch, which have a bound of their own
    std::unique_ptr<mg_context, ReleasedBy<mg_stop>> m_context;
};

}  // namespace nuvio::controller
