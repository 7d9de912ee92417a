#include "local/local_server.h"

#include <algorithm>
#include <utility>

#include "common/sockets/process_sockets.h"

namespace local_core {

namespace {

// Where it cannot be seen it is taken for granted.
bool this_process_listens() {
    bool is_found = false;
    const bool is_known = nuvio::for_each_tcp_socket([&](const nuvio::TcpSocket& socket) {
        is_found = nuvio::is_listener(socket.own.get());
        return !is_found;
    });
    return is_found || !is_known;
}

}  // namespace

LocalServer::LocalServer(uv_loop_t* loop, const Logger& logger, std::function<void()> on_due)
    : m_logger(logger),
      m_on_due(std::move(on_due)),
      m_pause(make_loop_handle<uv_timer_t>(
          this, [loop](uv_timer_t* timer) { return uv_timer_init(loop, timer); })) {}

bool LocalServer::start(nuv_connect* core, const nuv_local_config_server_delegate& delegate) {
    if (m_listens || uv_is_active(reinterpret_cast<uv_handle_t*>(m_pause.get())) != 0) {
        return m_listens;
    }
    delegate.start(core, delegate.context);
    m_listens = this_process_listens();
    if (!m_listens) {
        m_pause_ms = std::clamp(2 * m_pause_ms, kFirstPauseMs, kLongestPauseMs);
        m_logger.write(LogLevel::warning, kCloudClient,
                       "The local configuration server does not listen; asking again in %llu s",
                       static_cast<unsigned long long>(m_pause_ms / 1000));
        uv_timer_start(
            m_pause.get(),
            [](uv_timer_t* timer) { static_cast<LocalServer*>(timer->data)->m_on_due(); },
            m_pause_ms, 0);
    }
    return m_listens;
}

}  // namespace local_core
