#include "utility/log_delegate.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <functional>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "utility/repeat_filter.h"

namespace {

std::string written_by(const std::function<void()>& writer) {
    testing::internal::CaptureStdout();
    writer();
    return testing::internal::GetCapturedStdout();
}

// Level, category and message of each line.
std::vector<std::string> lines_of(const std::function<void()>& writer) {
    std::vector<std::string> lines;
    std::istringstream output(written_by(writer));
    for (std::string line; std::getline(output, line);) {
        if (!line.empty()) {  // some messages bring their own line's end
            lines.push_back(line.substr(line.find("] ") + 2));
        }
    }
    return lines;
}

TEST(LogDelegate, ALineIsWholeCutAndFreeOfWhatCouldBeginAnother) {
    EXPECT_THAT(written_by([] { app_log(7, "Renderer is now %s", "active"); }),
                testing::MatchesRegex("[0-9]{8} [0-9]{2}:[0-9]{2}:[0-9]{2}\\.[0-9]{3} "
                                      "\\[[0-9]+\\.[0-9]+\\] FATAL SampleApp: Renderer is now "
                                      "active\n"));
    EXPECT_THAT(written_by([] {
                    app_log(LOG_LEVEL_INFO, "id %s.\n",
                            "a\n20260101 x\x1b[2J\t\xc3\xa9\xc2\x9b\x9b");
                }),
                testing::EndsWith("id a\\x0a20260101 x\\x1b[2J\t\xc3\xa9\\xc2\\x9b\\x9b.\n\n"));
    EXPECT_THAT(lines_of([] { app_log(LOG_LEVEL_DEBUG, "%s", std::string(3000, 'x').c_str()); }),
                testing::ElementsAre("DEBUG SampleApp: " + std::string(2047, 'x')));
}

TEST(LogDelegate, LinesOfTwoThreadsNeverMix) {
    constexpr int kLines = 2000;
    const auto lines = lines_of([] {
        const auto write = [](char letter) {
            for (int i = 0; i < kLines; i++) {
                app_log(LOG_LEVEL_INFO, "%d %s", i, std::string(100, letter).c_str());
            }
        };
        std::jthread other(write, 'a');
        write('b');
    });
    EXPECT_EQ(lines.size(), size_t{2} * kLines);
    EXPECT_THAT(lines,
                testing::Each(testing::MatchesRegex("INFO SampleApp: [0-9]+ (a{100}|b{100})")));
}

TEST(LogDelegate, CallsThatFailInTurnWithoutEndAreCountedInsteadOfWritten) {
    const auto lines = lines_of([] {
        for (int i = 0; i < 1000; i++) {
            app_log(LOG_LEVEL_ERROR, "write failed");
            sdk_log_callback(LOG_LEVEL_WARNING, "Other", "trying again\n");
        }
        log_set_clock([] { return repeat_filter::clock::now() + repeat_filter::kFirstStretch; });
        app_log(LOG_LEVEL_DEBUG, "last");
    });
    log_set_clock(repeat_filter::clock::now);
    ASSERT_EQ(lines.size(), 2 * repeat_filter::kPassing + 3);
    EXPECT_THAT(lines, testing::IsSupersetOf({"ERROR SampleApp: write failed (990 more times)",
                                              "WARNING Other: trying again (990 more times)"}));
    EXPECT_EQ(lines.back(), "DEBUG SampleApp: last");
}

TEST(LogDelegate, ABrokenPreconditionEndsTheProcessAndSaysWhich) {
    // The line goes to standard output; death tests look at standard error.
    EXPECT_DEATH((dup2(2, 1), log_write("A", LOG_LEVEL_INFO, nullptr)),
                 "log_write: check failed: message != NULL");
}

}  // namespace
