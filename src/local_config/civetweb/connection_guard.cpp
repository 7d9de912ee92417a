#include "local_config/civetweb/connection_guard.h"

#include <csignal>

#include "local_config/civetweb/server_sockets.h"
#include "utility/check.h"
#include "utility/log_delegate.h"

namespace {

// Ignored where nobody waits for it, and used by nothing else.
constexpr int kConnectionSignal = SIGURG;

template <typename Object, typename Handle>
Object* context_of(Handle* handle) {
    return static_cast<Object*>(uv_handle_get_data(reinterpret_cast<uv_handle_t*>(handle)));
}

void report(unsigned count, std::chrono::milliseconds patience) {
    app_log(LOG_LEVEL_WARNING, "HTTP: %u connections cut off: no request within %u ms", count,
            static_cast<unsigned>(patience.count()));
}

class loop_clock : public nuvio::GuardClock {
  public:
    explicit loop_clock(uv_loop_t* event_loop) : m_timer(uv_timer_new(event_loop, nullptr)) {}

    void start(nuvio::HttpGuard& guard) override {
        if (!uv_timer_is_active(m_timer.get())) {
            uv_handle_set_data(reinterpret_cast<uv_handle_t*>(m_timer.get()), &guard);
            uv_timer_start(m_timer.get(), on_tick, kTick.count(), kTick.count());
        }
    }

  private:
    static void on_tick(uv_timer_t* timer) {
        if (!context_of<nuvio::HttpGuard>(timer)->look()) {
            uv_timer_stop(timer);
        }
    }

    std::unique_ptr<uv_timer_t, nuvio::ReleasedBy<uv_timer_free>> m_timer;
};

}  // namespace

connection_guard::connection_guard(uv_loop_t* event_loop, uint16_t port)
    : m_guard(port, {kPatience, kCrowd, kCrowdPatience, report},
              std::make_unique<loop_clock>(event_loop)),
      m_signal(uv_signal_new(event_loop, &m_guard)) {
    const int rc = uv_signal_start(m_signal.get(), on_connection, kConnectionSignal);
    NUV_CHECK(rc == 0);
    signal_connections(port, kConnectionSignal);
    m_guard.announce();  // someone may have connected already
}

void connection_guard::on_connection(uv_signal_t* handle, int) {
    context_of<nuvio::HttpGuard>(handle)->announce();
}
