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

    // Runs the loop until the condition holds; false when it does not within thirty seconds.
    template <typename Condition>
    bool run_until(Condition condition) {
        return run(std::chrono::seconds(30), condition);
    }
    void run_for(std::chrono::milliseconds duration) {
        run(duration, [] { return false; });
    }

    uv_loop_t loop_{};

  private:
    template <typename Condition>
    bool run(std::chrono::milliseconds limit, Condition condition) {
        // A pass of the loop may wait for ever after what the test waits for has happened in it.
        uv_timer_t tick;
        uv_timer_init(&loop_, &tick);
        uv_timer_start(
            &tick, [](uv_timer_t*) {}, 0, 2);
        const auto deadline = std::chrono::steady_clock::now() + limit;
        bool held = condition();
        while (!held && std::chrono::steady_clock::now() < deadline) {
            uv_run(&loop_, UV_RUN_ONCE);
            held = condition();
        }
        bool closed = false;
        tick.data = &closed;
        uv_close(reinterpret_cast<uv_handle_t*>(&tick),
                 [](uv_handle_t* handle) { *static_cast<bool*>(handle->data) = true; });
        while (!closed) {
            uv_run(&loop_, UV_RUN_NOWAIT);
        }
        return held;
    }
};
