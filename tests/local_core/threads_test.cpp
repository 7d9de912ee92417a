// What the core's threads do when nothing plays.
#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>

#include "local_core/audio_files.h"
#include "local_core/scripted_device.h"

namespace {

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
