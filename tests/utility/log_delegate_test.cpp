#include "utility/log_delegate.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "utility/repeat_filter.h"

namespace {

using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStdout;

std::string written_by(const std::function<void()>& writer) {
    CaptureStdout();
    writer();
    return GetCapturedStdout();
}

TEST(LogDelegate, LineHasDateTimeIdsLevelCategoryAndMessage) {
    EXPECT_THAT(written_by([] { app_log(LOG_LEVEL_INFO, "Renderer is now %s", "active"); }),
                testing::MatchesRegex("[0-9]{8} [0-9]{2}:[0-9]{2}:[0-9]{2}\\.[0-9]{3} "
                                      "\\[[0-9]+\\.[0-9]+\\] INFO SampleApp: Renderer is now "
                                      "active\n"));
    EXPECT_THAT(written_by([] { app_log(7, "x"); }), testing::HasSubstr(" FATAL SampleApp: x\n"));
}

TEST(LogDelegate, NoForeignTextBeginsALineOfItsOwn) {
    EXPECT_THAT(
        written_by([] { app_log(LOG_LEVEL_INFO, "id %s.\n", "a\n20260101 x\x1b[2J\t\xc3\xa9"); }),
        testing::EndsWith("id a\\x0a20260101 x\\x1b[2J\t\xc3\xa9.\n\n"));
}

TEST(LogDelegate, LongMessageIsCutAt2047Bytes) {
    const std::string line =
        written_by([] { app_log(LOG_LEVEL_DEBUG, "%s", std::string(3000, 'x').c_str()); });
    EXPECT_THAT(line, testing::EndsWith("SampleApp: " + std::string(2047, 'x') + "\n"));
}

TEST(LogDelegate, LinesOfTwoThreadsNeverMix) {
    constexpr int kLines = 2000;
    const std::string output = written_by([] {
        const auto write = [](char letter) {
            const std::string message(100, letter);
            for (int i = 0; i < kLines; i++) {
                app_log(LOG_LEVEL_INFO, "%d %s", i, message.c_str());
            }
        };
        std::jthread other(write, 'a');
        write('b');
    });
    int whole = 0;
    std::istringstream lines(output);
    for (std::string line; std::getline(lines, line);) {
        const std::string message = line.substr(line.size() - 100);
        whole += message == std::string(100, 'a') || message == std::string(100, 'b');
    }
    EXPECT_EQ(whole, 2 * kLines);
}

TEST(LogDelegate, CallsThatFailInTurnWithoutEndAreCountedInsteadOfWritten) {
    const std::string output = written_by([] {
        for (int i = 0; i < 1000; i++) {
            app_log(LOG_LEVEL_ERROR, "write failed");
            sdk_log_callback(LOG_LEVEL_WARNING, "Other", "trying again\n");
        }
        log_set_clock([] { return repeat_filter::clock::now() + repeat_filter::kFirstStretch; });
        app_log(LOG_LEVEL_DEBUG, "last");
    });
    log_set_clock(repeat_filter::clock::now);
    std::vector<std::string> ends;
    std::istringstream lines(output);
    for (std::string line; std::getline(lines, line);) {
        if (!line.empty()) {  // "trying again" brings its own
            ends.push_back(line.substr(line.find("] ") + 2));
        }
    }
    ASSERT_EQ(ends.size(), 2 * repeat_filter::kPassing + 3);
    EXPECT_THAT(ends, testing::IsSupersetOf({"ERROR SampleApp: write failed (990 more times)",
                                             "WARNING Other: trying again (990 more times)"}));
    EXPECT_EQ(ends.back(), "DEBUG SampleApp: last");
}

}  // namespace
