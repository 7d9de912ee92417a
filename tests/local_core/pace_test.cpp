// When a track that plays needs the loop, on a clock of the test's own.
#include "local/pace.h"

#include <gtest/gtest.h>

using local_core::Pace;
using std::chrono::milliseconds;

namespace {

class PaceTest : public testing::Test {
  protected:
    PaceTest() {
        pace.begin(t0);
        pace.looked(0, {}, t0);
    }
    // From `now` to the next offer, in ms.
    int64_t wait(Pace::Time now) {
        int64_t ms = 0;
        while (!pace.is_offer_due(now + milliseconds(ms))) {
            ++ms;
        }
        return ms;
    }

    Pace pace;
    const Pace::Time t0 = Pace::Clock::now();
};

TEST_F(PaceTest, AFullOutputIsLeftAloneAsLongAsItKeepsAReserve) {
    EXPECT_TRUE(pace.is_offer_due(t0));
    pace.fill(24000, 200, t0 + milliseconds(200));
    EXPECT_EQ(wait(t0 + milliseconds(200)), 1000);
    pace.fill(2000, 1200, t0 + milliseconds(1200));
    EXPECT_EQ(wait(t0 + milliseconds(1200)), 300);
    pace.fill(2000, 1600, t0 + milliseconds(1600));
    EXPECT_EQ(wait(t0 + milliseconds(1600)), 100);
    pace.fill(2000, 1900, t0 + milliseconds(1900));
    EXPECT_FALSE(pace.may_hold()) << "it holds too little";
}

TEST_F(PaceTest, AnOutputOnAFasterClockIsFilledSooner) {
    pace.fill(1000, 0, t0);
    EXPECT_EQ(wait(t0), 500);
    pace.fill(11000, 10000, t0 + milliseconds(500));
    EXPECT_EQ(wait(t0 + milliseconds(500)), 25);
}

TEST_F(PaceTest, WhatCannotHaveBeenHeardYetIsNotBelieved) {
    EXPECT_EQ(pace.plausible(9000, t0 + milliseconds(100)), 100U);
    EXPECT_EQ(pace.plausible(80, t0 + milliseconds(100)), 80U);
    EXPECT_EQ(pace.plausible(9000, t0 + milliseconds(1000)), 9000U);
}

TEST_F(PaceTest, LooksComeSoonThenOnceASecondAndNotAtTheVeryEnd) {
    EXPECT_EQ(pace.next_after(t0), t0 + milliseconds(50));
    const auto later = t0 + milliseconds(5000);
    EXPECT_TRUE(pace.is_look_due(later));
    pace.looked(5000, 3000, later);
    EXPECT_EQ(pace.next_after(later), later + milliseconds(1000));
    pace.go_on(later);
    pace.looked(0, {}, later);
    EXPECT_EQ(pace.next_after(later), later + milliseconds(20)) << "the place was not known yet";
    pace.looked(7000, 1000, later);
    EXPECT_EQ(pace.next_after(later), std::nullopt);
}

}  // namespace
