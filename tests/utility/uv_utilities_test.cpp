// A broken precondition ends the process and says which.
#include "utility/uv_utilities.h"

#include <gtest/gtest.h>
#include <unistd.h>

namespace {

TEST(UvUtilities, BrokenPreconditionsNameFunctionAndCondition) {
    // The line goes to standard output; death tests look at standard error.
    const auto dies = [](void (*call)()) {
        dup2(2, 1);
        call();
    };
    EXPECT_DEATH(dies([] { uv_timer_new(nullptr, nullptr); }),
                 "uv_timer_new: check failed: event_loop != NULL");
    EXPECT_DEATH(dies([] { uv_async_free(nullptr); }),
                 "uv_async_free: check failed: handle != NULL");
}

}  // namespace
