#include "utility/uv_utilities.h"

#include <gtest/gtest.h>

#include <chrono>
#include <thread>
#include <vector>

#include "loop_fixture.h"

namespace {

using namespace std::chrono_literals;

class UvUtilities : public LoopTest {
  protected:
    static void on_timer(uv_timer_t* timer) {
        static_cast<UvUtilities*>(uv_handle_get_data(reinterpret_cast<uv_handle_t*>(timer)))
            ->fired_at.push_back(uv_now(timer->loop));
    }

    void sleep(std::chrono::milliseconds duration) {
        std::this_thread::sleep_for(duration);
        uv_update_time(&loop_);
    }

    std::vector<uint64_t> fired_at;  // ms on the loop's clock
};

TEST_F(UvUtilities, PausedTimerKeepsTheTimeItHadLeftAndItsRepeat) {
    uv_pausable_timer_t* timer = uv_pausable_timer_new(&loop_, this);
    uv_pausable_timer_start(timer, on_timer, 200, 20);
    sleep(50ms);
    uv_pausable_timer_pause(timer);
    EXPECT_TRUE(uv_pausable_timer_is_paused(timer));
    const uint64_t left = timer->remaining_ms;
    EXPECT_LE(left, 150U);
    EXPECT_GT(left, 0U);

    sleep(30ms);
    uv_pausable_timer_pause(timer);  // the second pause changes nothing
    EXPECT_EQ(timer->remaining_ms, left);
    EXPECT_FALSE(uv_timer_is_active(&timer->timer));

    const uint64_t resumed_at = uv_now(&loop_);
    uv_pausable_timer_resume(timer);
    EXPECT_FALSE(uv_pausable_timer_is_paused(timer));
    EXPECT_EQ(timer->remaining_ms, 0U);
    ASSERT_TRUE(run_until([&] { return fired_at.size() >= 2; }));
    EXPECT_GE(fired_at[0], resumed_at + left);
    EXPECT_GE(fired_at[1], fired_at[0] + 20);
    uv_pausable_timer_free(timer);
}

TEST_F(UvUtilities, OnlyATimerThatRunsIsPausedAndStartAndStopEndThePause) {
    uv_pausable_timer_t* timer = uv_pausable_timer_new(&loop_, this);
    uv_pausable_timer_pause(timer);  // never started
    EXPECT_FALSE(uv_pausable_timer_is_paused(timer));

    uv_pausable_timer_start(timer, on_timer, 1000, 0);
    uv_pausable_timer_pause(timer);
    uv_pausable_timer_stop(timer);
    uv_pausable_timer_resume(timer);
    EXPECT_FALSE(uv_timer_is_active(&timer->timer));

    uv_pausable_timer_start(timer, on_timer, 1000, 0);
    uv_pausable_timer_pause(timer);
    uv_pausable_timer_start(timer, on_timer, 1, 0);
    EXPECT_FALSE(uv_pausable_timer_is_paused(timer));
    uv_run(&loop_, UV_RUN_DEFAULT);
    uv_pausable_timer_pause(timer);  // a one-shot that has fired
    uv_pausable_timer_resume(timer);
    uv_run(&loop_, UV_RUN_DEFAULT);
    EXPECT_EQ(fired_at.size(), 1U);
    uv_pausable_timer_free(timer);
}

TEST_F(UvUtilities, BrokenPreconditionsNameFunctionAndCondition) {
    // The line goes to standard output; death tests look at standard error.
    const auto dies = [](void (*call)()) {
        dup2(2, 1);
        call();
    };
    EXPECT_DEATH(dies([] { uv_timer_new(nullptr, nullptr); }),
                 "uv_timer_new: check failed: event_loop != NULL");
    EXPECT_DEATH(dies([] { uv_async_free(nullptr); }),
                 "uv_async_free: check failed: handle != NULL");
    EXPECT_DEATH(dies([] {
                     uv_pausable_timer_start(uv_pausable_timer_new(uv_default_loop(), nullptr),
                                             nullptr, 1, 0);
                 }),
                 "uv_pausable_timer_start: check failed: callback != NULL");
}

}  // namespace
