// From the SDK's state to the platform: the hooks, the status commands, the track.
#include <atomic>
#include <chrono>
#include <functional>
#include <stop_token>
#include <thread>

#include "bridge/host_hooks.h"
#include "bridge/loop_call.h"
#include "bridge/service_fixture.h"
#include "fakes/on_loop.h"

using namespace android;
using namespace service_test;
using fake_modules::Song;

namespace {

const Song kSong = {"Song", {44100, 2, NUV_AUDIO_SAMPLE_FORMAT_16_BIT}, 215000};
const Song kOther = {"Other", {96000, 6, NUV_AUDIO_SAMPLE_FORMAT_24_BIT}, 99999999999};

class Status : public Service {
  protected:
    ~Status() override { m_loop.close(); }

    // The hooks belong to the loop's thread.
    void onLoop(std::function<void()> function) { m_loop.run(std::move(function)); }
    void report(int status) {
        onLoop([status] { host_report_playback_status(status); });
        process({});
    }

  private:
    fakes::OnLoop m_loop;
};

TEST_F(Status, PositionsAndSeeksPassWhileATrackPlays) {
    struct Case {
        int status;
        const char* seek;
        Lines platform;
        Lines sdk;
    };
    fake_modules::state()->tracks = {kSong};
    startBridge();
    for (const Case& wanted :
         {Case{0, "SEEK:500", {}, {}},
          Case{1, "SEEK:-1", {"write 49 61250"}, {"seek_time 4294967295"}},
          Case{2, "SEEK", {}, {"seek_time 4294967295"}}, Case{3, "SEEK:1", {}, {}}}) {
        report(wanted.status);
        fake_platform::state()->take_calls();
        fake_sdk::take_calls();
        onLoop([] { host_report_playback_position(61250); });
        process({wanted.seek});
        EXPECT_EQ(fake_platform::state()->calls, wanted.platform) << wanted.seek;
        EXPECT_EQ(fake_sdk::calls(), wanted.sdk) << wanted.seek;
    }
}

TEST_F(Status, AStopClearsTheUiUnlessTheRendererIsActiveOrLostTheOutput) {
    const auto clears_while_active = [&](bool active) {
        fake_sdk::Values values;
        values.active = active;
        fake_sdk::set_values(values);
        fake_platform::state()->take_calls();
        report(0);
        return fake_platform::state()->count("ui_clear") == 1;
    };
    fake_modules::state()->tracks = {kSong};
    startBridge();
    EXPECT_FALSE(clears_while_active(true));
    EXPECT_TRUE(clears_while_active(false));
    process({"ONSOURCESWITCH"});
    EXPECT_FALSE(clears_while_active(false));
    report(1);  // playing again: the next stop clears, and the same title is sent anew
    EXPECT_TRUE(clears_while_active(false));
    report(1);
    EXPECT_EQ(fake_platform::state()->count("ui_update"), 1U);
    fake_sdk::set_result("get_renderer_active_state", NUV_ERROR_INTERNAL);
    EXPECT_FALSE(clears_while_active(false));
}

// The meeting that must not deadlock: the command thread, its turn at the queue in hand, waits for
// the loop, while the loop posts at every chance and a platform thread waits for its own turn.
TEST_F(Status, TheLoopNeverWaitsForTheCommandThread) {
    static std::atomic<bool> playing;
    static std::atomic<bool> loop_went_on;
    playing = false;
    loop_went_on = false;
    fake_modules::state()->on_tick = [] {
        host_report_volume();
        host_allow_source();
        host_report_playback_position(1);
        if (playing.exchange(false)) {
            host_report_playback_status(1);
        }
    };
    fake_sdk::on_call([](const std::string& call) {
        if (call == "pause_playback") {  // in the middle of a batch
            const std::string post = "Pushed event = VOLUME_STATUS";
            loop_went_on = captured_log::wait_for(post, captured_log::lines_with(post).size() + 20);
        }
    });
    fake_modules::state()->tracks = {kSong, kOther, kSong, kOther};
    startBridge();
    std::atomic<bool> done{false};
    std::thread platform([&done] {
        while (!done) {
            postEventTo_Nuvio("NEXT");
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
    });
    postEventTo_Nuvio("PAUSE");
    for (size_t update = 1; update <= 3; ++update) {
        playing = true;
        EXPECT_TRUE(captured_log::wait_for("currTrackInfo.samplingRate", update));
    }
    EXPECT_TRUE(loop_went_on);
    EXPECT_EQ(fake_modules::state()->questions, 3U);
    EXPECT_THAT(fake_platform::state()->calls,
                testing::Contains(testing::HasSubstr("totalTime=2147483647")))
        << "the most there is";
    done = true;
    platform.join();
}

// A question that the loop has not taken up is withdrawn by a stop or after a while, one that it is
// late with is given up, and none is taken after the close.
TEST(LoopCall, NeverWaitsLongerThanTheStopOrTheLoop) {
    uv_loop_t loop;
    uv_loop_init(&loop);
    {
        LoopCall call(&loop, std::chrono::milliseconds(20));
        LoopCall patient(&loop, std::chrono::hours(1));
        std::stop_source stop;
        std::atomic<int> runs = 0;
        std::thread stopped(
            [&] { EXPECT_FALSE(patient.run(stop.get_token(), [&runs] { ++runs; })); });
        stop.request_stop();
        stopped.join();
        std::thread([&] { EXPECT_FALSE(call.run({}, [&runs] { ++runs; })); }).join();  // hung loop
        uv_run(&loop, UV_RUN_NOWAIT);  // the wake-ups of the withdrawn questions
        EXPECT_EQ(runs, 0);

        std::atomic<bool> given_up = false;
        std::thread late([&] {
            EXPECT_FALSE(call.run({}, [&] { given_up.wait(false); }));
            given_up = true;
            given_up.notify_all();
        });
        while (!given_up) {
            uv_run(&loop, UV_RUN_NOWAIT);
        }
        late.join();
        call.close();

        std::thread asker([&] {
            EXPECT_TRUE(patient.run({}, [&runs] { ++runs; }));
            EXPECT_FALSE(patient.run({}, [&runs] { ++runs; }));
        });
        while (runs == 0) {
            uv_run(&loop, UV_RUN_NOWAIT);
        }
        patient.close();
        asker.join();
        EXPECT_EQ(runs, 1);
    }
    uv_run(&loop, UV_RUN_DEFAULT);
    EXPECT_EQ(uv_loop_close(&loop), 0);
}

}  // namespace
