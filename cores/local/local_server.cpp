#include "local/local_server.h"

#include <sys/socket.h>

#include <algorithm>
#include <filesystem>
#include <system_error>
#include <utility>

#include "common/number.h"

namespace local_core {

namespace {

int socket_option(int fd, int option) {
    int value = 0;
    socklen_t size = sizeof value;
    return getsockopt(fd, SOL_SOCKET, option, &value, &size) == 0 ? value : 0;
}

bool accepts_tcp_connections(int fd) {
    const int domain = socket_option(fd, SO_DOMAIN);
    return (domain == AF_INET || domain == AF_INET6) && socket_option(fd, SO_ACCEPTCONN) == 1;
}

// Where it cannot be seen it is taken for granted.
bool this_process_listens() {
    std::error_code error;
    std::filesystem::directory_iterator entry("/proc/self/fd", error);
    const bool is_unknown = static_cast<bool>(error);
    for (; !error && entry != std::filesystem::directory_iterator(); entry.increment(error)) {
        const auto fd = nuvio::to_number<int>(entry->path().filename().native());
        if (fd && accepts_tcp_connections(*fd)) {
            return true;
        }
    }
    return is_unknown;
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
