// When a track that plays needs the loop, on a clock of the test's own.
#include "local/playback/pace.h"

#include <gtest/gtest.h>

using local_core::Pace;

namespace {

class PaceTest : public testing::Test {
  protected:
    PaceTest() {
        pace.begin(at(0));
        pace.looked(0, {}, at(0));
    }
    Pace::Time at(int64_t ms) const { return t0 + std::chrono::milliseconds(ms); }
    // From there to the next offer, in ms.
    int64_t wait(int64_t from_ms) {
        int64_t ms = 0;
        while (!pace.due(at(from_ms + ms)).offer) {
            ++ms;
        }
        return ms;
    }

    // Told after what is due then.
    std::optional<Pace::Time> next(int64_t ms) {
        pace.due(at(ms));
        return pace.next();
    }

    Pace pace;
    const Pace::Time t0 = Pace::Clock::now();
};

TEST_F(PaceTest, AFullOutputIsLeftAloneAsLongAsItKeepsAReserve) {
    EXPECT_EQ(wait(0), 0);
    pace.fill(24000, 200, at(200));
    EXPECT_EQ(wait(200), 1000);
    pace.fill(2000, 1200, at(1200));
    EXPECT_EQ(wait(1200), 400);
    pace.fill(2000, 1600, at(1600));
    EXPECT_EQ(wait(1600), 200);
    pace.fill(2000, 1900, at(1900));
    EXPECT_FALSE(pace.may_hold()) << "it holds too little";
}

TEST_F(PaceTest, AnOutputThatHasBeenFullIsOfferedWhatItLacksAndNowAndThenMore) {
    EXPECT_FALSE(pace.knows_capacity());
    pace.fill(1000, 0, at(0));
    EXPECT_EQ(pace.room_ms(1000, 500), 490U);
    EXPECT_EQ(pace.room_ms(1000, 5), 0U);
    EXPECT_EQ(pace.room_ms(1000, 800), std::nullopt) << "nearly dry";
    for (int64_t ms = 500; ms <= 10'000; ms += 500) {
        EXPECT_TRUE(pace.knows_capacity());
        pace.top_up(990 + ms, ms, at(ms));
        EXPECT_EQ(wait(ms), 495);
    }
    EXPECT_FALSE(pace.knows_capacity()) << "it may be another one by now";
    pace.fill(300, 150, at(10'500));
    EXPECT_FALSE(pace.knows_capacity()) << "too short to be left alone";
}

TEST_F(PaceTest, AnOutputOnAFasterClockIsFilledSoonerAndWhatItCannotHavePlayedIsNotBelieved) {
    EXPECT_EQ(pace.plausible(9000, at(100)), 100U);
    EXPECT_EQ(pace.plausible(80, at(100)), 80U);
    EXPECT_EQ(pace.plausible(9000, at(1000)), 9000U);
    pace.fill(1000, 0, at(0));
    EXPECT_EQ(wait(0), 500);
    pace.fill(11000, 10000, at(500));
    EXPECT_EQ(wait(500), 25);
}

TEST_F(PaceTest, LooksComeSoonThenOnceASecondAndNotAtTheVeryEnd) {
    EXPECT_EQ(next(0), at(50));
    EXPECT_TRUE(pace.due(at(5000)).look);
    pace.looked(5000, 3000, at(5000));
    EXPECT_EQ(next(5000), at(6000));
    pace.go_on(at(5000));
    pace.looked(0, {}, at(5000));
    EXPECT_EQ(next(5000), at(5020)) << "the place was not known yet";
    pace.looked(7000, 1000, at(5000));
    EXPECT_EQ(next(5000), std::nullopt);
}

}  // namespace
