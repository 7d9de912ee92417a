// A libuv loop of its own for each test; at the end every handle must have been closed.
#pragma once

#include <gtest/gtest.h>
#include <uv.h>

#include <chrono>

class LoopTest : public testing::Test {
  protected:
    LoopTest() { uv_loop_init(&loop_); }
    ~LoopTest() override {
        uv_run(&loop_, UV_RUN_DEFAULT);
        EXPECT_EQ(uv_loop_close(&loop_), 0) << "a handle was left open";
    }

    // Runs the loop until the condition holds; false when it does not within ten seconds.
    template <typename Condition>
    bool run_until(Condition condition) {
        return run(std::chrono::seconds(10), condition);
    }
    void run_for(std::chrono::milliseconds duration) {
        run(duration, [] { return false; });
    }

    uv_loop_t loop_{};

  private:
    template <typename Condition>
    bool run(std::chrono::milliseconds limit, Condition condition) {
        bool expired = false;
        uv_timer_t timer;
        uv_timer_init(&loop_, &timer);
        timer.data = &expired;
        uv_timer_start(
            &timer, [](uv_timer_t* fired) { *static_cast<bool*>(fired->data) = true; },
            static_cast<uint64_t>(limit.count()), 0);
        while (!condition() && !expired) {
            uv_run(&loop_, UV_RUN_ONCE);
        }
        bool closed = false;
        timer.data = &closed;
        uv_close(reinterpret_cast<uv_handle_t*>(&timer),
                 [](uv_handle_t* handle) { *static_cast<bool*>(handle->data) = true; });
        while (!closed) {
            uv_run(&loop_, UV_RUN_NOWAIT);
        }
        return !expired;
    }
};
