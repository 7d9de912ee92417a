// The bridge's life and its commands.
#include <algorithm>
#include <array>
#include <atomic>
#include <random>
#include <thread>
#include <tuple>

#include "bridge/host_hooks.h"
#include "bridge/service_fixture.h"

using namespace android;
using namespace service_test;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

class Bridge : public Service {};

// ---- Life

TEST_F(Bridge, TellsTheSdkWhoTheDeviceIsAndConvertsPortAndLogLevelLeniently) {
    for (const auto& [port, made, log_level, is_shown] :
         {std::tuple{"70000", "http new 4464", "abc", false},
          std::tuple{"80 ", "http new 80", "3x", true}}) {
        Lines settings = kSettings;
        settings[DEVICE_INFO_HTTP_PORT] = port;
        settings[DEVICE_INFO_LOG_LEVEL] = log_level;
        settings.emplace_back("one entry too many");
        startBridge(settings);
        process({});
        EXPECT_THAT(fake_modules::state()->journal, Contains(made));
        EXPECT_EQ(fake_sdk::log_delegate().callback != nullptr, is_shown);
        const nuv_connect_config config = fake_sdk::config();
        EXPECT_STREQ(config.serial_number, "a45e");
        EXPECT_STREQ(config.hardware_id, "a45e");
        EXPECT_STREQ(config.app_secret, "secret");
        EXPECT_EQ(config.maximum_audio_quality, NUV_AUDIO_QUALITY_HI_RES_LEVEL_2);
        stopNuvioConnect();
        postEventTo_Nuvio("NEXT");
        EXPECT_EQ(countLines("No bridge, dropped event = NEXT"), 1U);
        EXPECT_FALSE(host_allow_source());
        host_report_volume();
        host_report_playback_status(1);
        host_report_playback_position(1);
        EXPECT_THAT(fake_platform::state()->calls, IsEmpty());
        fake_sdk::reset();
        captured_log::reset();
    }
}

TEST_F(Bridge, ThatCannotBeMadeReleasesWhatItHasAndFailsEveryCommand) {
    size_t failures = 0;
    const auto start_and_fail = [&](const Lines& settings, const std::string& reason) {
        fake_modules::state()->journal.clear();
        startBridge(settings);
        postEventTo_Nuvio("NEXT");
        EXPECT_TRUE(captured_log::wait_for("instance is not created", ++failures));
        EXPECT_TRUE(captured_log::wait_for(reason));
        stopNuvioConnect();
        return fake_modules::state()->journal;
    };
    const Lines too_short(kSettings.begin(), kSettings.begin() + 10);
    EXPECT_THAT(start_and_fail(too_short, "due to out of range error: Device info array"),
                IsEmpty());
    fake_sdk::set_result("create", NUV_ERROR_INTERNAL);
    EXPECT_THAT(start_and_fail(kSettings, "handleException Unable to create Nuvio Connect"),
                ElementsAre("renderer new hw:0 hw:1 PCM", "http new 8000", "advertiser new",
                            "advertiser free", "http free", "renderer free"));
    fake_modules::state()->no_renderer = true;
    EXPECT_THAT(start_and_fail(kSettings, "handleException audio_renderer is null"),
                ElementsAre("renderer new hw:0 hw:1 PCM"));
}

// Stops come while the modules are being made, while commands run, while the loop asks and waits.
TEST_F(Bridge, StopsAtAnyPoint) {
    constexpr int kRounds = 150;
    std::atomic<bool> done{false};
    std::thread poster([&done] {
        const Lines commands = {"NEXT", "POST_PLAYSTATUS", "DEVICENAME:Den", "SHUFFLE:ON"};
        for (size_t next = 0; !done; ++next) {
            postEventTo_Nuvio(commands[next % commands.size()]);
            std::this_thread::sleep_for(std::chrono::microseconds(200));
        }
    });
    std::mt19937 random(1);
    fake_modules::state()->on_tick = [] { host_report_playback_status(1); };
    for (int round = 0; round < kRounds; ++round) {
        startBridge();
        std::this_thread::sleep_for(std::chrono::microseconds(random() % 3000));
        stopNuvioConnect();
    }
    done = true;
    poster.join();
    EXPECT_EQ(std::ranges::count(fake_modules::state()->journal, "renderer free"), kRounds);
    EXPECT_EQ(std::ranges::count(fake_sdk::calls(), "free"), kRounds);
}

// ---- Commands

// The loop's posts make the next batch ready before this one ends; what waits is taken in all the
// same.
TEST_F(Bridge, PostsMadeDuringABatchWaitForItAndGoBeforeABatchOfTheLoops) {
    static std::atomic<bool> loop_posts;
    loop_posts = false;
    fake_modules::state()->on_tick = [] {
        if (loop_posts) {
            host_report_volume();
        }
    };
    startBridge();
    postEventTo_Nuvio("DEVICENAME:Den");
    ASSERT_TRUE(captured_log::wait_for("[DEVICENAME] Waiting 500ms before update\n"));
    loop_posts = true;
    std::array<std::thread, 3> posters;
    for (std::thread& poster : posters) {
        poster = std::thread([] {
            postEventTo_Nuvio("NEXT");
            EXPECT_THAT(fake_sdk::calls(), Contains("set_device_name Den"));
        });
    }
    for (std::thread& poster : posters) {
        poster.join();
    }
    process({});
    EXPECT_THAT(fake_sdk::calls(), ElementsAre("create Den", "set_device_name Den", "next_track",
                                               "next_track", "next_track"));
    const Lines lines = captured_log::lines_with("vent = ");
    const auto first = [&lines](const std::string& text) {
        return std::ranges::find_if(
            lines, [&text](const std::string& line) { return line.find(text) != line.npos; });
    };
    EXPECT_LT(first("Pushed event = NEXT"), first("Processing event = VOLUME_STATUS"));
}

TEST_F(Bridge, AStopCutsTheRenameShortAndDropsWhatIsQueued) {
    fake_sdk::on_call([](const std::string& call) {
        if (call == "pause_playback") {  // on the command thread, so both are in the next batch
            postEventTo_Nuvio("DEVICENAME:Attic");
            postEventTo_Nuvio("NEXT");
        }
    });
    startBridge();
    postEventTo_Nuvio("PAUSE");
    ASSERT_TRUE(captured_log::wait_for("[DEVICENAME] Waiting 500ms before update\n"));
    stopNuvioConnect();
    EXPECT_THAT(fake_sdk::calls(), ElementsAre("create Den", "pause_playback", "free"));
}

}  // namespace
