// Watches how a loop runs while it lives: a limit of time, and how often the loop woke up.
#pragma once

#include <uv.h>

#include <cstdint>
#include <functional>
#include <utility>

#include "utility/uv_utilities.h"

class LoopWatch {
  public:
    // Passes of the loop during which `is_busy` says so are not wake-ups.
    LoopWatch(uv_loop_t* loop, unsigned limit_ms, std::function<bool()> is_busy)
        : m_timer(uv_timer_new(loop, this)),
          m_prepare(new uv_prepare_t),
          m_is_busy(std::move(is_busy)) {
        uv_timer_start(
            m_timer,
            [](uv_timer_t* timer) { static_cast<LoopWatch*>(timer->data)->m_overdue = true; },
            limit_ms, 0);
        uv_prepare_init(loop, m_prepare);
        m_prepare->data = this;
        uv_prepare_start(m_prepare, [](uv_prepare_t* prepare) {
            auto* self = static_cast<LoopWatch*>(prepare->data);
            self->m_wake_ups += self->m_is_busy() ? 0 : 1;
        });
    }
    ~LoopWatch() {
        uv_timer_free(m_timer);
        uv_close(reinterpret_cast<uv_handle_t*>(m_prepare),
                 [](uv_handle_t* handle) { delete reinterpret_cast<uv_prepare_t*>(handle); });
    }
    LoopWatch(const LoopWatch&) = delete;
    LoopWatch& operator=(const LoopWatch&) = delete;

    bool is_overdue() const { return m_overdue; }
    uint64_t wake_ups() const { return m_wake_ups; }

  private:
    uv_timer_t* m_timer;
    uv_prepare_t* m_prepare;
    std::function<bool()> m_is_busy;
    bool m_overdue = false;
    uint64_t m_wake_ups = 0;
};
