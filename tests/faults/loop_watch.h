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
        : timer_(uv_timer_new(loop, this)),
          prepare_(new uv_prepare_t),
          is_busy_(std::move(is_busy)) {
        uv_timer_start(
            timer_,
            [](uv_timer_t* timer) { static_cast<LoopWatch*>(timer->data)->overdue_ = true; },
            limit_ms, 0);
        uv_prepare_init(loop, prepare_);
        prepare_->data = this;
        uv_prepare_start(prepare_, [](uv_prepare_t* prepare) {
            auto* self = static_cast<LoopWatch*>(prepare->data);
            self->wake_ups_ += self->is_busy_() ? 0 : 1;
        });
    }
    ~LoopWatch() {
        uv_timer_free(timer_);
        uv_close(reinterpret_cast<uv_handle_t*>(prepare_),
                 [](uv_handle_t* handle) { delete reinterpret_cast<uv_prepare_t*>(handle); });
    }
    LoopWatch(const LoopWatch&) = delete;
    LoopWatch& operator=(const LoopWatch&) = delete;

    bool is_overdue() const { return overdue_; }
    uint64_t wake_ups() const { return wake_ups_; }

  private:
    uv_timer_t* timer_;
    uv_prepare_t* prepare_;
    std::function<bool()> is_busy_;
    bool overdue_ = false;
    uint64_t wake_ups_ = 0;
};
