#include "controller/web/web_server.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdio>
#include <exception>
#include <span>
#include <thread>

#include "common/fnv1a.h"
#include "common/http_guard/thread_clock.h"
#include "common/percent_encoding.h"
#include "common/request_origin.h"
#include "common/text.h"
#include "controller/base/log.h"
#include "controller/base/token.h"
#include "controller/web/page_files.h"

namespace nuvio::controller {

namespace {

// Pages and channels hold a worker each, and so does what is being sent.
constexpr char kWorkers[] = "64";
constexpr size_t kMostAnswered = 64;
constexpr size_t kMostOfAPeer = 32;  // a proxy is one for all who come through it
// A peer's time for its request's head; less from so many of them on.
constexpr std::chrono::milliseconds kPatience{5'000};
constexpr size_t kCrowd = 32;
constexpr std::chrono::milliseconds kCrowdPatience{200};
// What a peer may still send of a body that nobody has read; where there are too many already,
// less.
constexpr std::chrono::milliseconds kLinger{1'000};
constexpr std::chrono::milliseconds kCrowdLinger{200};
// CivetWeb's own, for a write that waits: a device may have read ahead, and be paused. Whoever has
// no token is cut off by the guard.
constexpr char kWriteTimeoutMs[] = "3600000";
constexpr std::chrono::milliseconds kWrongPasswordPause{500};
constexpr std::string_view kCookieName = "nuvio_controller=";

std::string base64_decoded(std::string_view text) {
    constexpr std::string_view kDigits =
        "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    std::string out;
    uint32_t bits = 0;
    int count = 0;
    for (const char c : text) {
        const size_t digit = kDigits.find(c);
        if (digit == std::string_view::npos) {
            break;
        }
        bits = (bits << 6U) | static_cast<uint32_t>(digit);
        count += 6;
        if (count >= 8) {
            count -= 8;
            out += static_cast<char>((bits >> static_cast<unsigned>(count)) & 0xffU);
        }
    }
    return out;
}

std::string_view text_of(const char* text) {
    return text != nullptr ? text : "";
}

// CivetWeb, too, looks no closer at "keep-alive, Upgrade".
bool asks_for_websocket(const Exchange& exchange) {
    std::string connection(text_of(exchange.header("Connection")));
    std::ranges::transform(connection, connection.begin(), to_lower);
    return equals_ignoring_case(text_of(exchange.header("Upgrade")), "websocket") &&
           connection.find("upgrade") != std::string::npos;
}

}  // namespace

WebServer::WebServer(const Settings& settings, Library& library, House& house, Changes& changes)
    : m_settings(settings),
      m_cookie(new_token()),
      m_guard(settings.port, {kPatience, kCrowd, kCrowdPatience, {}},
              std::make_unique<ThreadClock>()),
      m_api(library, house, changes),
      m_house(house),
      m_content(library, house),
      m_sockets(house, changes, m_guard, [this](uint64_t version) { return m_api.state(version); }),
      m_being_answered(kMostAnswered, kMostOfAPeer) {
    mg_init_library(0);
}

WebServer::~WebServer() {
    m_guard.cut_all();
    m_context.reset();
    mg_exit_library();
}

bool WebServer::start() {
    const std::string port = (m_settings.address.empty() ? "" : m_settings.address + ":") +
                             std::to_string(m_settings.port);
    const char* options[] = {"listening_ports",
                             port.c_str(),
                             "num_threads",
                             kWorkers,
                             "request_timeout_ms",
                             kWriteTimeoutMs,
                             "websocket_timeout_ms",
                             "30000",
                             "decode_url",  // a name in a path may have a '/'
                             "no",
                             "enable_directory_listing",
                             "no",
                             "tcp_nodelay",
                             "1",
                             nullptr};
    mg_callbacks callbacks{};
    callbacks.init_connection = on_connection;
    callbacks.begin_request = on_request;
    callbacks.end_request = on_request_over;
    callbacks.log_message = on_log;
    m_context.reset(mg_start(&callbacks, this, options));
    if (m_context == nullptr) {
        log_line(LogLevel::error, "The port can't be had: " + port);
        return false;
    }
    m_sockets.put_on(m_context.get());
    return true;
}

// ---- CivetWeb's workers -------------------------------------------------------------------------

int WebServer::on_log(const mg_connection*, const char* message) {
    log_line(LogLevel::warning, std::string("web server: ") + message);
    return 1;
}

// Its result is not looked at.
int WebServer::on_connection(const mg_connection* connection, void**) {
    auto* self = static_cast<WebServer*>(mg_get_user_data(mg_get_context(connection)));
    self->m_guard.announce();
    return 0;
}

// Above 0 it has been answered: CivetWeb reads what is left of the body until the guard cuts it
// off, and closes. At 0 it goes on, to a WebSocket's handshake or to files, of which there are
// none. Nothing may be thrown through it.
int WebServer::on_request(mg_connection* connection) {
    const mg_request_info* info = mg_get_request_info(connection);
    auto* self = static_cast<WebServer*>(info->user_data);
    GuardedConnection::introduce(self->m_guard, connection);
    Exchange exchange(connection, self->m_guard, self->m_bodies, self->base_of(info->local_uri));
    const int status = self->answer(exchange);
    if (status > 0) {
        exchange.guarded().set_deadline(status == 503 ? kCrowdLinger : kLinger);
    }
    return status;
}

// After the handler of a WebSocket that has closed, too.
void WebServer::on_request_over(const mg_connection* connection, int) {
    static_cast<WebServer*>(mg_get_user_data(mg_get_context(connection)))
        ->m_sockets.give_back(connection);
}

int WebServer::answer(Exchange& exchange) {
    try {
        return serve(exchange);
    } catch (const DatabaseError& error) {
        log_line(LogLevel::error, std::string("The library can't be read: ") + error.what());
        return exchange.fail(503, "the library can't be read just now");
    } catch (const std::exception& error) {
        log_line(LogLevel::error, std::string("A request failed: ") + error.what());
        return exchange.fail(500, "it went wrong; the log says why");
    }
}

// The base path as it stands before `path`; empty, where it does not.
std::string WebServer::base_of(const char* path) const {
    for (const std::string& base : {m_settings.base, percent_encode(m_settings.base)}) {
        if (text_of(path).starts_with(base + "/")) {
            return base;
        }
    }
    return {};
}

// Somebody follows a link to the page, from wherever.
bool WebServer::is_visit(const Exchange& exchange) const {
    return exchange.method() == "GET" &&
           equals_ignoring_case(text_of(exchange.header("Sec-Fetch-Mode")), "navigate") &&
           (page_file(exchange.path()) != nullptr || exchange.path() == m_settings.base);
}

int WebServer::serve(Exchange& exchange) {
    if (foreign_header(exchange.header("Host"), exchange.header("Origin"),
                       is_visit(exchange) ? nullptr : exchange.header("Sec-Fetch-Site"),
                       std::span(&m_settings.public_name, 1)) != nullptr) {
        return exchange.fail(403,
                             "asked by a page of another site, or by a name that is not of "
                             "this house (--public-name)");
    }
    const std::string& method = exchange.method();
    const std::string& path = exchange.path();
    if (!m_settings.base.empty() && path == m_settings.base) {
        return exchange.reply(308, "text/plain", {}, "Location: " + m_settings.base + "/\r\n");
    }
    if (method != "GET" && method != "HEAD" && method != "POST") {
        return exchange.fail(405, "not by this method");
    }
    constexpr std::string_view kContent = "/content/";
    if (path.starts_with(kContent)) {
        return m_content.serve(exchange, std::string_view(path).substr(kContent.size()));
    }
    const Places::Place place = m_being_answered.take(exchange.peer());
    return place != nullptr ? serve_house(exchange)
                            : exchange.fail_as_busy("too many requests at once from one address");
}

int WebServer::serve_house(Exchange& exchange) {
    constexpr std::string_view kCover = "/cover/";
    const std::string& path = exchange.path();
    if (path == "/channel" || path == "/api/events") {
        return serve_socket(exchange);
    }
    if (!is_allowed(exchange)) {
        return ask_for_password(exchange);
    }
    if (path.starts_with(kCover)) {
        return m_content.serve_cover(exchange, std::string_view(path).substr(kCover.size()));
    }
    return path.starts_with("/api/") ? m_api.serve(exchange) : serve_page(exchange);
}

// 0: CivetWeb goes on with the handshake.
int WebServer::serve_socket(Exchange& exchange) {
    if (!asks_for_websocket(exchange)) {
        // A page whose socket was refused asks why: the cookie alone goes with that, and a 401
        // would have the browser ask for the password.
        if (exchange.path() != "/channel" && !m_settings.password.empty() &&
            !has_cookie(exchange)) {
            return exchange.fail(403, "a WebSocket lives here, for pages with the cookie");
        }
        return exchange.fail(426, "a WebSocket lives here", "Upgrade: websocket\r\n");
    }
    if (exchange.path() == "/channel") {
        if (m_house.sessions().device_of_token(exchange.bearer()).empty()) {
            return exchange.fail(401, "a session's token is needed",
                                 "WWW-Authenticate: Bearer realm=\"channel\"\r\n");
        }
        return m_sockets.reserve_channel(exchange.connection(), std::string(exchange.bearer()))
                   ? 0
                   : exchange.fail_as_busy("too many devices");
    }
    if (!is_allowed(exchange)) {
        return ask_for_password(exchange);
    }
    return m_sockets.reserve_page(exchange.connection(), exchange.peer())
               ? 0
               : exchange.fail_as_busy("too many pages are open");
}

int WebServer::serve_page(Exchange& exchange) {
    const PageFile* file = page_file(exchange.path());
    if (file == nullptr) {
        return exchange.fail(404, "no such thing");
    }
    const bool is_zipped = exchange.takes_gzip();
    std::array<char, 32> etag{};
    std::snprintf(etag.data(), etag.size(), "\"%016llx%s\"",
                  static_cast<unsigned long long>(fnv1a(kFnv1aStart, file->data)),
                  is_zipped ? "z" : "");
    std::string headers = std::string("ETag: ") + etag.data() +
                          "\r\nCache-Control: no-cache\r\nVary: Accept-Encoding\r\n";
    if (!m_settings.password.empty()) {
        headers += new_cookie(exchange);
    }
    if (text_of(exchange.header("If-None-Match")) == etag.data()) {
        return exchange.reply(304, {}, {}, headers);
    }
    return is_zipped ? exchange.reply(200, file->type, file->gzipped,
                                      headers + "Content-Encoding: gzip\r\n")
                     : exchange.reply(200, file->type, file->data, headers);
}

// ---- The password -------------------------------------------------------------------------------

bool WebServer::is_allowed(const Exchange& exchange) const {
    return m_settings.password.empty() || has_cookie(exchange) || has_password(exchange) ||
           // A device that shows a cover.
           (exchange.path().starts_with("/cover/") &&
            !m_house.sessions().device_of_token(exchange.bearer()).empty());
}

// For the path by which the page was asked for, which is the proxy's or none. A browser sends
// Sec-Fetch-Site over TLS alone, which only a proxy can do.
std::string WebServer::new_cookie(const Exchange& exchange) const {
    const bool is_secure = exchange.header("Sec-Fetch-Site") != nullptr &&
                           is_asked_by(exchange.header("Host"), m_settings.public_name);
    return "Set-Cookie: " + std::string(kCookieName) + m_cookie + "; Path=" + exchange.base() +
           "/; HttpOnly; SameSite=Strict" + (is_secure ? "; Secure" : "") + "\r\n";
}

// Others may have the same name: those of a proxy's other paths, and an older start's.
bool WebServer::has_cookie(const Exchange& exchange) const {
    std::string_view rest = text_of(exchange.header("Cookie"));
    while (!rest.empty()) {
        const size_t end = std::min(rest.find(';'), rest.size());
        const std::string_view cookie = trim(rest.substr(0, end));
        if (cookie.starts_with(kCookieName) &&
            equals_secret(cookie.substr(kCookieName.size()), m_cookie)) {
            return true;
        }
        rest.remove_prefix(std::min(end + 1, rest.size()));
    }
    return false;
}

// Whatever the user's name.
bool WebServer::has_password(const Exchange& exchange) const {
    constexpr std::string_view kScheme = "Basic ";
    const std::string_view given = text_of(exchange.header("Authorization"));
    if (!starts_with_ignoring_case(given, kScheme) || given.size() <= kScheme.size()) {
        return false;
    }
    const std::string text = base64_decoded(trim(given.substr(kScheme.size())));
    const size_t colon = text.find(':');
    return colon != std::string::npos &&
           equals_secret(std::string_view(text).substr(colon + 1), m_settings.password);
}

int WebServer::ask_for_password(Exchange& exchange) {
    if (exchange.header("Authorization") != nullptr) {
        std::this_thread::sleep_for(kWrongPasswordPause);
    }
    return exchange.fail(401, "the password is needed",
                         "WWW-Authenticate: Basic realm=\"Nuvio Connect\", charset=\"UTF-8\"\r\n");
}

}  // namespace nuvio::controller
