#include "utility/repeat_filter.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

using namespace std::chrono_literals;

// The filter at times of the test's own.
class RepeatFilter : public testing::Test {
  protected:
    // How many of `times` equal lines pass, all at one moment.
    int passing(const std::string& message, int times = 1, uint32_t level = 4,
                const char* category = "A") {
        int passed = 0;
        for (int i = 0; i < times; i++) {
            const auto report = [&](const auto& count) {
                counts.push_back(std::to_string(count.level) + count.category + ":" +
                                 count.message + "*" + std::to_string(count.lines));
            };
            filter.report_due(now, report);
            passed += filter.admit(now, level, category, message, report);
        }
        return passed;
    }

    repeat_filter filter;
    repeat_filter::clock::time_point now{1h};
    std::vector<std::string> counts;
};

TEST_F(RepeatFilter, LinesThatDifferInAnythingPassAndTenASecondForEver) {
    EXPECT_EQ(passing("m", 11), 10);
    EXPECT_EQ(passing("m", 1, 3), 1);
    EXPECT_EQ(passing("m", 1, 4, "B"), 1);
    EXPECT_EQ(passing("Am", 1, 4, ""), 1);
    const std::string longer(2047, 'x');
    passing(longer + "a", 11);
    EXPECT_EQ(passing(longer + "b"), 1) << "to the last byte";
    for (int i = 0; i < 1000; i++) {
        EXPECT_EQ(passing(std::to_string(i)), 1);
    }
    EXPECT_TRUE(counts.empty()) << "one that is held back keeps its place";
    now += 1s;
    passing("z");
    EXPECT_THAT(counts,
                testing::UnorderedElementsAre("4A:m*1", "4A:" + std::string(255, 'x') + "*1"));
    for (int second = 0; second < 100; second++) {
        now += 1s;
        EXPECT_EQ(passing("p", 10), 10);
    }
}

TEST_F(RepeatFilter, TheCountComesWithTheFirstLineAfterTheSecondOrAPlacesLoss) {
    passing("m", 500);
    now += 999ms;
    passing("n");
    EXPECT_TRUE(counts.empty());
    now += 1ms;
    passing("m", 5);
    EXPECT_THAT(counts, testing::ElementsAre("4A:m*490"));
    now += 1h;
    EXPECT_EQ(passing("m", 11), 10) << "the flood is over and forgotten";
    for (int line = 0; line < 16; line++) {
        passing(std::to_string(line), 20);
    }
    EXPECT_THAT(counts, testing::ElementsAre("4A:m*490", "4A:m*4", testing::EndsWith("*10")));
}

TEST_F(RepeatFilter, AnEndlessFloodThinsToOneLineAndOneCountAMinute) {
    int passed = 0;
    for (int ms = 0; ms < 3'600'000; ms += 10) {
        passed += passing("m");
        now += 10ms;
    }
    EXPECT_THAT(passed, testing::AllOf(testing::Ge(60), testing::Lt(10 + 6 + 60)));
    EXPECT_THAT(counts, testing::SizeIs(testing::AllOf(testing::Ge(60), testing::Lt(70))));
    EXPECT_EQ(counts.front(), "4A:m*90");
    EXPECT_EQ(counts.back(), "4A:m*5999");
}

}  // namespace
