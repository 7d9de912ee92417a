// The platform's services absent, slow, or coming and going while the service starts, runs and
// ends.
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <mutex>
#include <random>
#include <stop_token>
#include <string>
#include <thread>
#include <vector>

#include "bridge/host_hooks.h"
#include "bridge/service_fixture.h"
#include "faults/seed.h"
#include "platform/Environment.h"

using namespace android;
using namespace service_test;
using namespace std::chrono_literals;
using testing::Contains;

namespace {

constexpr unsigned kStuckAfterS = 100;

class PlatformFaults : public RunningService {
  protected:
    PlatformFaults() { alarm(kStuckAfterS); }
    ~PlatformFaults() override { alarm(0); }

    void run_until_initialized() {
        run();
        ASSERT_TRUE(captured_log::wait_for("Nuvio Connect has been initialized"));
    }
};

// Nor does the SDK answer a question.
TEST_F(PlatformFaults, AbsentServicesLeaveDefaultsAndAWorkingBridge) {
    for (const char* query : {"get_volume", "get_mute_state", "get_loop_mode", "get_shuffle_mode",
                              "get_renderer_active_state"}) {
        fake_sdk::set_result(query, NUV_ERROR_INTERNAL);
    }
    {
        const fake_platform::Locked platform = fake_platform::state();
        platform->unreachable_kora = 1;
        platform->unreachable_nesh = 20;
        platform->loses_messages = true;
        platform->has_ui = false;
        platform->grants_output = false;
        platform->friendly_name.known = platform->manufacturer.known = platform->model.known =
            false;
        platform->items[kFeatureNuvioConnect] = "1";
    }
    fake_modules::state()->tracks = {{"Title", {44100, 2, NUV_AUDIO_SAMPLE_FORMAT_16_BIT}, 1000}};
    run_until_initialized();
    EXPECT_FALSE(host_allow_source());
    host_report_playback_position(1000);
    host_report_mute_state();
    host_report_volume();
    host_report_shuffle_repeat();
    host_report_playback_status(NUV_PLAYBACK_STATE_PLAYING);
    fake_platform::notify_message(KORA_DEVICE_NAME);
    process({"MUTE_STATE", "VOLUME_STATUS", "NEXT"});
    EXPECT_THAT(fake_sdk::calls(), Contains("next_track"));
    EXPECT_EQ(end(), 0);
}

// What the loop reports during a batch of slow calls waits in the queue, and the loop goes on.
TEST_F(PlatformFaults, SlowServicesHoldUpCommandsButNotTheLoop) {
    static std::atomic<size_t> passes;
    static std::atomic<bool> ends;
    passes = 0;
    ends = false;
    fake_modules::state()->on_tick = [] {
        ++passes;
        host_report_volume();
        host_report_mute_state();
        host_report_playback_status(NUV_PLAYBACK_STATE_STOPPED);
    };
    run_until_initialized();
    // A call takes until the loop has gone on; one that never does is waited for once.
    fake_platform::state()->in_each_call = [] {
        const size_t wanted = passes + 20;
        const auto limit = [] { return HasFailure() ? 0 : ends ? 1'000 : 20'000; };
        for (int ms = 0; passes < wanted && ms < limit(); ++ms) {
            std::this_thread::sleep_for(1ms);
        }
        EXPECT_TRUE(passes >= wanted || ends) << "the loop waited for the platform";
    };
    const auto calls = [] { return fake_platform::state()->calls.size(); };
    const size_t calls_before = calls();
    while (calls() < calls_before + 10) {
        std::this_thread::sleep_for(1ms);
    }
    ends = true;
    const size_t calls_at_end = calls();
    EXPECT_EQ(end(), 0) << "not before the call in progress, but without the queue";
    EXPECT_LE(calls(), calls_at_end + 10);
}

// The output is granted under the lock that notifications are sent with: the loop waits for a
// notification, that for its turn to post, and the turn for the loop's answer.
TEST_F(PlatformFaults, APlatformThatGrantsAndNotifiesUnderOneLockStopsNothing) {
    static std::atomic<bool> plays;
    plays = false;
    fake_modules::state()->tracks = {{"Title", {44100, 2, NUV_AUDIO_SAMPLE_FORMAT_16_BIT}, 1000}};
    fake_modules::state()->on_tick = [] {
        if (plays.exchange(false)) {
            host_report_playback_status(NUV_PLAYBACK_STATE_PLAYING);
            host_allow_source();
        }
    };
    std::mutex lock_of_the_platform;
    fake_platform::state()->when_asked_for_output = [&] {
        const std::scoped_lock lock(lock_of_the_platform);
    };
    run_until_initialized();
    {
        const std::scoped_lock lock(lock_of_the_platform);
        plays = true;
        ASSERT_TRUE(captured_log::wait_for("update playbackstatus"));
        NuvioSSListener::getInstance()->OnSourceEvent("NEXT");
    }
    process({});
    EXPECT_THAT(fake_sdk::calls(), Contains("next_track"));
    EXPECT_EQ(countLines("the event loop does not answer, no metadata"), 2U);
    EXPECT_EQ(end(), 0);
}

// ---- Services that come and go -----------------------------------------------------------------

// What a platform does to the service, from several threads at once.
class Storm {
  public:
    explicit Storm(uint64_t seed) {
        for (unsigned n = 0; n < kThreadCount; ++n) {
            m_threads.emplace_back(blow, std::mt19937_64(seed + n));
        }
    }
    // Nothing new begins; what waits for the end of a batch goes on waiting.
    void calm() {
        for (std::jthread& thread : m_threads) {
            thread.request_stop();
        }
    }

  private:
    static constexpr unsigned kThreadCount = 3;

    static void blow(const std::stop_token& over, std::mt19937_64 random) {
        const sp<NuvioSSListener> listener = NuvioSSListener::getInstance();
        const auto below = [&](unsigned bound) { return static_cast<int>(random() % bound); };
        while (!over.stop_requested()) {
            switch (below(8)) {
                case 0:
                    fake_platform::notify_network(1 + below(2), below(2));
                    break;
                case 1:
                    fake_platform::state()->messages[KORA_DEVICE_NAME] =
                        "Name " + std::to_string(below(3));
                    fake_platform::notify_message(KORA_DEVICE_NAME);
                    break;
                case 2:
                    fake_platform::notify_message(KORA_SHUTDOWN_REQUEST);
                    break;
                case 3:
                    listener->OnVolumeChangeEvent("40");
                    break;
                case 4:
                    listener->OnSourceSwitchEvent();
                    break;
                case 5:
                    listener->OnSourceEvent("NEXT");
                    break;
                case 6: {  // restarting: for a while nothing can be read, shown or granted
                    const fake_platform::Locked platform = fake_platform::state();
                    platform->loses_messages = below(2) == 0;
                    platform->grants_output = platform->has_ui = below(2) == 0;
                    break;
                }
                default:
                    std::this_thread::sleep_for(std::chrono::microseconds(below(3000)));
            }
        }
    }

    std::vector<std::jthread> m_threads;
};

TEST_F(PlatformFaults, ServiceEndsAtAnyMomentOfAStormOfNotifications) {
    std::mt19937_64 random(draw_seed());
    const size_t rounds = how_many(20, 300);
    size_t rounds_with_a_bridge = 0;
    for (size_t round = 0; round < rounds; ++round) {
        alarm(kStuckAfterS);
        resetNetwork();
        fake_platform::reset();
        fake_platform::state()->wired = random() % 2 == 0;
        captured_log::reset();
        fake_modules::reset();
        fake_modules::state()->on_tick = [] {
            host_report_playback_status(NUV_PLAYBACK_STATE_PLAYING);
            host_report_playback_position(1000);
        };
        run();
        ASSERT_TRUE(captured_log::wait_for("MAIN TO START NUVIO CONNECT END"));
        {
            Storm storm(random());
            std::this_thread::sleep_for(std::chrono::microseconds(random() % 200000));
            if (random() % 2 == 0) {
                storm.calm();
            }
            // Not after the storm's end: each status report in a batch may take seconds.
            EXPECT_EQ(end(), 0);
        }
        rounds_with_a_bridge += countLines("Nuvio Connect has been initialized") > 0 ? 1 : 0;
        EXPECT_TRUE(fake_platform::state()->kora_ids.empty());
        EXPECT_TRUE(fake_platform::state()->nesh == nullptr);
        NuvioSSListener::releaseInstance();
    }
    EXPECT_GT(rounds_with_a_bridge, rounds / 2);
}

}  // namespace
