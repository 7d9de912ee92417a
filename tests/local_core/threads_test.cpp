// Control from other threads, and a core that is freed at any moment.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <random>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "local_core/audio_files.h"
#include "local_core/scripted_device.h"

namespace {

using Calls = std::vector<nuv_error (*)(nuv_connect*, unsigned)>;

// Everything that the command thread of a device may call.
const Calls kCalls = {
    [](nuv_connect* core, unsigned) { return nuv_connect_pause_playback(core); },
    [](nuv_connect* core, unsigned) { return nuv_connect_resume_playback(core); },
    [](nuv_connect* core, unsigned) { return nuv_connect_resume_playback(core); },
    [](nuv_connect* core, unsigned) { return nuv_connect_stop_playback(core); },
    [](nuv_connect* core, unsigned) { return nuv_connect_next_track(core); },
    [](nuv_connect* core, unsigned) { return nuv_connect_previous_track(core); },
    [](nuv_connect* core, unsigned n) { return nuv_connect_seek_time(core, n % 200); },
    [](nuv_connect* core, unsigned n) { return nuv_connect_set_volume(core, n % 101); },
    [](nuv_connect* core, unsigned n) { return nuv_connect_set_mute_state(core, n % 2 == 0); },
    [](nuv_connect* core, unsigned n) { return nuv_connect_set_shuffle_mode(core, n % 2 == 0); },
    [](nuv_connect* core, unsigned n) {
        return nuv_connect_set_loop_mode(core, static_cast<nuv_loop_mode>(n % 3));
    },
    [](nuv_connect* core, unsigned n) {
        return nuv_connect_set_device_name(core, n % 2 == 0 ? "A" : "B");
    },
    [](nuv_connect* core, unsigned) {
        nuv_playback_state state{};
        return nuv_connect_get_playback_state(core, &state);
    },
};

// How often the decoding thread has gone to sleep; empty when it is not there.
std::string sleeps_of_decoder() {
    for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
        std::stringstream text;
        text << std::ifstream(task.path() / "status").rdbuf();
        if (text.str().find("nuv-decoder") != std::string::npos) {
            return text.str().substr(text.str().find("voluntary_ctxt_switches:"));
        }
    }
    return "";
}

class Threads : public testing::Test {
  protected:
    Threads() {
        for (int i = 0; i < 5; ++i) {
            write_wav(folder, std::to_string(i) + ".wav", i == 2 ? 50 : 9000);
        }
    }
    TempDir folder;
};

TEST_F(Threads, HammeringTheControlsBreaksNoPromise) {
    ScriptedDevice device;
    std::minstd_rand room(3);
    device.take = [&room](size_t offered) { return room() % 3 == 0 ? room() % offered : offered; };
    ASSERT_EQ(device.play(folder.path()), NUV_ERROR_OK);
    std::atomic<int> running{2};
    const auto hammer = [&](unsigned seed) {
        std::minstd_rand random(seed);
        for (int i = 0; i < 3000; ++i) {
            kCalls[random() % kCalls.size()](device.core(), random());
            if (i % 8 == 0) {
                std::this_thread::sleep_for(std::chrono::microseconds(random() % 300));
            }
        }
        --running;
    };
    std::thread first(hammer, 1);
    std::thread second(hammer, 2);
    device.run_until([&] { return running == 0; });
    first.join();
    second.join();

    // Whatever was asked for last, a plain wish is still granted.
    EXPECT_EQ(nuv_connect_set_loop_mode(device.core(), NUV_LOOP_MODE_OFF), NUV_ERROR_OK);
    EXPECT_EQ(nuv_connect_set_shuffle_mode(device.core(), false), NUV_ERROR_OK);
    ASSERT_EQ(device.play(folder / "4.wav"), NUV_ERROR_OK);
    device.take_lines();
    device.run_until_line("end of track");
    device.run_until_line("state STOPPED");
}

TEST_F(Threads, FreeAtAnyMomentEndsEverythingAndCallsNobody) {
    std::minstd_rand random(5);
    for (int round = 0; round < 150; ++round) {
        ScriptedDevice device;
        ASSERT_EQ(device.play(folder.path()), NUV_ERROR_OK);
        for (unsigned passes = random() % 60; passes > 0; --passes) {
            if (random() % 4 == 0) {
                kCalls[random() % kCalls.size()](device.core(), random());
            }
            device.run_for_ms(random() % 8 == 0 ? 1 : 0);
            uv_run(device.loop(), UV_RUN_NOWAIT);
        }
    }
}

TEST_F(Threads, NothingRunsWhenNothingPlays) {
    ScriptedDevice device;
    ASSERT_EQ(device.play(folder.path()), NUV_ERROR_OK);
    device.take = [](size_t) { return size_t{0}; };
    device.run_until_line("state PLAYING");
    EXPECT_EQ(nuv_connect_pause_playback(device.core()), NUV_ERROR_OK);
    device.run_until_line("state PAUSED");
    device.run_for_ms(50);
    // With the queue full and the delivery closed neither thread takes a turn.
    const auto before = sleeps_of_decoder();
    ASSERT_NE(before, "");
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    EXPECT_EQ(sleeps_of_decoder(), before);
    EXPECT_EQ(uv_run(device.loop(), UV_RUN_NOWAIT), 1);
    EXPECT_NE(uv_backend_timeout(device.loop()), 0) << "the loop would spin";
}

}  // namespace
