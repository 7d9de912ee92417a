#include "local_config/civetweb/web_server.h"

#include <array>
#include <cstdio>
#include <utility>

#include "local_config/civetweb/server_sockets.h"
#include "utility/check.h"
#include "utility/log_delegate.h"
#include "utility/uv_utilities.h"

namespace {

constexpr uint64_t kLastAnswerPatienceMs = 1'000;

int http_server_on_civetweb_log_message(const mg_connection*, const char* message) {
    app_log(LOG_LEVEL_ERROR, "[Civetweb] %s", message);
    return 1;
}

// Whether the system has as many threads left as the library will ask for. The library goes on
// without its listener where that could not be started: connections would be taken by the kernel
// and answered by nobody.
bool threads_can_be_had() {
    constexpr size_t kListenerAndWorker = 2;
    uv_sem_t end;
    int rc = uv_sem_init(&end, 0);
    NUV_CHECK(rc == 0);
    std::array<uv_thread_t, kListenerAndWorker> threads{};
    const auto wait = [](void* until) { uv_sem_wait(static_cast<uv_sem_t*>(until)); };
    size_t started = 0;
    while (started < threads.size() && uv_thread_create(&threads[started], wait, &end) == 0) {
        ++started;
    }
    for (size_t i = 0; i < started; ++i) {
        uv_sem_post(&end);
    }
    for (size_t i = 0; i < started; ++i) {
        rc = uv_thread_join(&threads[i]);
        NUV_CHECK(rc == 0);
    }
    uv_sem_destroy(&end);
    return started == threads.size();
}

uint16_t port_in_use(const mg_context* context, uint16_t configured) {
    mg_server_port port{};
    return mg_get_server_ports(context, 1, &port) == 1 ? static_cast<uint16_t>(port.port)
                                                       : configured;
}

}  // namespace

web_server::web_server(uv_loop_t* event_loop, uint16_t port, loop_hand_off& hand_off,
                       register_handlers handlers, void* data)
    : m_loop(event_loop),
      m_port(port),
      m_hand_off(hand_off),
      m_handlers(handlers),
      m_data(data),
      m_on_stopped(uv_async_new(event_loop, on_stopped, this)) {}

web_server::~web_server() {
    stop();
    if (m_state == state::stopping) {
        join_stopper();
    }
}

bool web_server::is_started() const {
    return m_state == state::running || m_state == state::restarting;
}

void web_server::start() {
    switch (m_state) {
        case state::stopped:
            start_now();
            return;
        case state::stopping:
            m_state = state::restarting;
            return;
        case state::running:
        case state::restarting:
            return;
    }
}

void web_server::start_now() {
    mg_callbacks callbacks{};
    callbacks.log_message = http_server_on_civetweb_log_message;
    char port_text[16];
    std::snprintf(port_text, sizeof(port_text),
                  mg_check_feature(MG_FEATURES_IPV6) == MG_FEATURES_IPV6 ? "+%u" : "%u",
                  unsigned{m_port});
    const char* options[] = {"listening_ports", port_text, "num_threads", "1", nullptr};

    m_hand_off.reopen();
    m_context = threads_can_be_had() ? mg_start(&callbacks, m_data, options) : nullptr;
    if (m_context == nullptr) {
        app_log(LOG_LEVEL_ERROR, "Unable to start HTTP server");
        if (m_port != 0) {
            close_listeners(m_port);  // where the worker could not be started
        }
        return;
    }
    m_state = state::running;
    m_listening_port = port_in_use(m_context, m_port);
    m_handlers(m_context, m_data);
    m_guard = std::make_unique<connection_guard>(m_loop, m_listening_port);
}

void web_server::stop() {
    if (m_state == state::restarting) {
        m_state = state::stopping;
    }
    if (m_state != state::running) {
        return;
    }
    m_guard.reset();
    m_hand_off.cancel();
    m_state = state::stopping;
    if (uv_thread_create(&m_stopper, stop_context, this) != 0) {
        app_log(LOG_LEVEL_WARNING, "No thread to stop the HTTP server on; the event loop waits");
        stop_context(this);
        m_state = state::stopped;
    }
}

// Stopper thread. CivetWeb's threads sleep for up to 2 s unless their sockets wake them, and send
// nothing more once mg_stop has begun; mg_stop itself looks every 10 ms whether they have ended.
void web_server::stop_context(void* data) {
    auto* self = static_cast<web_server*>(data);
    shut_down_server_sockets(self->m_listening_port);
    self->m_hand_off.wait_until_idle(kLastAnswerPatienceMs);
    mg_stop(self->m_context);
    close_server_sockets(self->m_listening_port);
    const int rc = uv_async_send(self->m_on_stopped.get());
    NUV_CHECK(rc == 0);
}

// At once when the stopper thread has reported its end, otherwise after some 10 ms.
void web_server::join_stopper() {
    const int rc = uv_thread_join(&m_stopper);
    NUV_CHECK(rc == 0);
    m_context = nullptr;
}

void web_server::on_stopped(uv_async_t* async) {
    auto* self =
        static_cast<web_server*>(uv_handle_get_data(reinterpret_cast<uv_handle_t*>(async)));
    if (self->m_state != state::stopping && self->m_state != state::restarting) {
        return;
    }
    self->join_stopper();
    if (std::exchange(self->m_state, state::stopped) == state::restarting) {
        self->start_now();
    }
}
