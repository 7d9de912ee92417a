#include "local/base/loop_wakeup.h"

namespace local_core {

LoopWakeup::LoopWakeup(uv_loop_t* loop, std::function<void()> callback)
    : m_callback(std::move(callback)) {
    m_async = make_loop_handle<uv_async_t>(this, [loop](uv_async_t* handle) {
        return uv_async_init(loop, handle, [](uv_async_t* self) {
            static_cast<LoopWakeup*>(self->data)->m_callback();
        });
    });
    m_idle = make_loop_handle<uv_idle_t>(
        this, [loop](uv_idle_t* handle) { return uv_idle_init(loop, handle); });
    m_timer = make_loop_handle<uv_timer_t>(
        this, [loop](uv_timer_t* handle) { return uv_timer_init(loop, handle); });
}

void LoopWakeup::wake() {
    uv_async_send(m_async.get());
}

void LoopWakeup::run_each_pass() {
    uv_idle_start(m_idle.get(),
                  [](uv_idle_t* self) { static_cast<LoopWakeup*>(self->data)->m_callback(); });
}

void LoopWakeup::rest() {
    uv_idle_stop(m_idle.get());
}

void LoopWakeup::run_at(std::optional<std::chrono::steady_clock::time_point> time) {
    if (!time) {
        uv_timer_stop(m_timer.get());
        return;
    }
    // The loop's time is that of the pass's beginning, in whole milliseconds.
    uv_update_time(m_timer->loop);
    const auto wait =
        std::chrono::ceil<std::chrono::milliseconds>(*time - std::chrono::steady_clock::now())
            .count();
    uv_timer_start(
        m_timer.get(), [](uv_timer_t* self) { static_cast<LoopWakeup*>(self->data)->m_callback(); },
        wait < 0 ? 0 : static_cast<uint64_t>(wait) + 1, 0);
}

}  // namespace local_core
