#include "local_config/civetweb/connection_guard.h"

#include <csignal>
#include <utility>

#include "local_config/civetweb/server_sockets.h"
#include "utility/check.h"
#include "utility/log_delegate.h"
#include "utility/uv_utilities.h"

namespace {

// Ignored where nobody waits for it, and used by nothing else.
constexpr int kConnectionSignal = SIGURG;

template <typename Handle>
connection_guard* guard_of(Handle* handle) {
    return static_cast<connection_guard*>(
        uv_handle_get_data(reinterpret_cast<uv_handle_t*>(handle)));
}

}  // namespace

connection_guard::connection_guard(uv_loop_t* event_loop, uint16_t port)
    : m_signal(uv_signal_new(event_loop, this)),
      m_timer(uv_timer_new(event_loop, this)),
      m_port(port) {
    const int rc = uv_signal_start(m_signal, on_connection, kConnectionSignal);
    NUV_CHECK(rc == 0);
    signal_connections(port, kConnectionSignal);
    watch();  // someone may have connected already
}

connection_guard::~connection_guard() {
    uv_signal_free(m_signal);
    uv_timer_free(m_timer);
}

void connection_guard::on_connection(uv_signal_t* handle, int) {
    guard_of(handle)->watch();
}

void connection_guard::on_tick(uv_timer_t* timer) {
    guard_of(timer)->look();
}

void connection_guard::watch() {
    m_expects_connections = true;
    if (!uv_timer_is_active(m_timer)) {
        uv_timer_start(m_timer, on_tick, kTickMs, kTickMs);
    }
}

void connection_guard::look() {
    const uint64_t now = uv_now(m_timer->loop);
    const uint64_t patience = m_first_seen.size() >= kCrowd ? kCrowdPatienceMs : kPatienceMs;
    std::map<uint64_t, uint64_t> still_open;
    unsigned cut = 0;
    shut_down_connections(m_port, [&](uint64_t id) {
        const auto known = m_first_seen.find(id);
        const uint64_t since = known == m_first_seen.end() ? now : known->second;
        still_open.emplace(id, since);
        const bool over = now - since >= patience;
        cut += static_cast<unsigned>(over && m_cut.insert(id).second);
        return over;
    });
    if (cut > 0) {
        app_log(LOG_LEVEL_WARNING, "HTTP: %u connections cut off: no request within %u ms", cut,
                static_cast<unsigned>(patience));
    }
    std::erase_if(m_cut, [&](uint64_t id) { return !still_open.contains(id); });
    m_first_seen = std::move(still_open);
    // A connection announced a moment ago may not have been accepted yet.
    if (m_first_seen.empty() && !m_expects_connections) {
        uv_timer_stop(m_timer);
    }
    m_expects_connections = false;
}
