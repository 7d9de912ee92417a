// What a controller asks for, and what becomes of it.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sndfile.h>

#include <algorithm>
#include <cstring>
#include <ctime>

#include "local_core/audio_files.h"
#include "local_core/scripted_device.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::StartsWith;

// Four tracks, longer than the core decodes ahead, and a device that takes what it is told to.
class Control : public testing::Test {
  protected:
    Control() {
        for (int i = 0; i < 4; ++i) {
            tracks.push_back(
                write_audio(folder, std::to_string(i) + ".wav", {kFormat, 8000, 2, kFrames}));
        }
    }

    // Starts the folder's first track and takes its first 1000 frames.
    void start_playing() {
        const uint64_t id = device.pcm_of_stream.empty() ? 1 : device.pcm_of_stream.size();
        take_only(id, 1000);
        ASSERT_EQ(device.play(folder.path()), NUV_ERROR_OK);
        device.run_until_line("state PLAYING");
        run_until_taken(id, 1000);
        device.take_lines();
    }
    // From now on of this stream only so many frames, since its start or last seek, are taken.
    void take_only(uint64_t id, size_t frames) {
        device.take = [this, id, frames](size_t offered) {
            const size_t taken =
                device.pcm_of_stream.size() > id ? device.pcm_of_stream[id].size() / 4 : 0;
            const bool concerned = device.playing_id() == id;
            return concerned ? std::min(offered, frames > taken ? (frames - taken) * 4 : 0)
                             : offered;
        };
    }
    void run_until_taken(uint64_t id, size_t frames) {
        device.run_until([this, id, frames] {
            const auto& pcm = device.pcm_of_stream;
            return pcm.size() > id && pcm[id].size() == frames * 4;
        });
    }
    // Tracks do not end for the time of a test; the next one flows behind the tail, or waits.
    void hold_end_of_track(bool next_flows) {
        device.tail_ms = next_flows ? 400 : 60000;
        device.holds_hand_over = next_flows;
    }
    nuv_error call(nuv_error (*control)(nuv_connect*)) { return device.guarded(control); }
    // What the device is told of a control, up to a line.
    std::vector<std::string> told(nuv_error (*control)(nuv_connect*), const std::string& last) {
        device.take_lines();
        EXPECT_EQ(call(control), NUV_ERROR_OK);
        device.run_until_line(last);
        return device.take_lines();
    }
    nuv_error seek(uint64_t position_ms) {
        return device.guarded(
            [=](nuv_connect* core) { return nuv_connect_seek_time(core, position_ms); });
    }
    static constexpr uint32_t kFrames = 8 * 8000;
    static constexpr int kFormat = SF_FORMAT_WAV | SF_FORMAT_PCM_16;
    TempDir folder;
    std::vector<AudioFile> tracks;
    ScriptedDevice device;
};

TEST_F(Control, SkipsInARowAndAPauseBringTheLastOneUpPaused) {
    start_playing();
    hold_end_of_track(false);
    device.take = nullptr;
    device.run_until([&] { return device.active_is_finished() && device.next() != nullptr; });
    EXPECT_EQ(call(nuv_connect_pause_playback), NUV_ERROR_OK);
    EXPECT_EQ(call(nuv_connect_next_track), NUV_ERROR_OK);
    const auto lines = told(nuv_connect_next_track, "state PAUSED");
    for (const char* line : {"metadata 3 2|||", "initiate PAUSED"}) {
        EXPECT_THAT(lines, testing::Contains(line));
    }
    told(nuv_connect_next_track, "metadata 4 3|||");
    EXPECT_EQ(call(nuv_connect_next_track), NUV_ERROR_NOT_FOUND);
}

TEST_F(Control, NextWhileTheNextTrackIsAnnouncedOrFlowsPlaysItFromItsStart) {
    for (const bool flows : {false, true}) {
        SCOPED_TRACE(flows);
        start_playing();
        const uint64_t id = device.active()->id + 1;
        hold_end_of_track(flows);
        take_only(id, 100);
        device.run_until([&] { return device.active_is_finished() && device.next() != nullptr; });
        if (flows) {
            run_until_taken(id, 100);
        }
        device.take = nullptr;
        told(nuv_connect_next_track, "finished " + std::to_string(id + 1));
        EXPECT_TRUE(device.pcm_of_stream[id + 1] == tracks[1].pcm);
        told(nuv_connect_deactivate_and_disconnect_renderer, "state STOPPED");
    }
}

TEST_F(Control, PreviousRestartsALateTrackAndGoesBackFromAnEarlyOne) {
    start_playing();
    EXPECT_EQ(call(nuv_connect_next_track), NUV_ERROR_OK);
    for (const size_t ms : {3001U, 3000U}) {  // heard
        take_only(2, ms * 8);
        run_until_taken(2, ms * 8);
        told(nuv_connect_previous_track, ms > 3000 ? "seeked 2 0" : "metadata 3 0|||");
    }
    take_only(3, 1000);
    run_until_taken(3, 1000);
    // Nothing precedes the first track: back to its start.
    told(nuv_connect_previous_track, "seeked 3 0");
    EXPECT_EQ(call(nuv_connect_stop_playback), NUV_ERROR_OK);
    EXPECT_EQ(call(nuv_connect_previous_track), NUV_ERROR_NOT_FOUND);
}

TEST_F(Control, SeekIsExactWhilePlayingAndPausedAndDropsWhatWasDecoded) {
    start_playing();
    EXPECT_EQ(seek(300), NUV_ERROR_OK);
    device.run_until_line("seeked 1 300");
    EXPECT_THAT(device.take_lines(), ElementsAre("seek in progress", "seeked 1 300"));
    run_until_taken(1, 1000);
    EXPECT_EQ(call(nuv_connect_pause_playback), NUV_ERROR_OK);
    EXPECT_EQ(seek(7), NUV_ERROR_OK);
    device.run_until_line("state PAUSED");
    EXPECT_THAT(device.take_lines(),
                ElementsAre("seek in progress", "seeked 1 7", "pause", "state PAUSED"));
    device.take = nullptr;
    hold_end_of_track(false);
    told(nuv_connect_resume_playback, "finished 1");
    EXPECT_TRUE(device.pcm_of_stream[1] == tracks[0].pcm_from_ms(7));
    // A resume after a stop starts the track anew.
    EXPECT_THAT(told(nuv_connect_stop_playback, "state STOPPED"), testing::Contains("dispose 1"));
    EXPECT_EQ(call(nuv_connect_stop_playback), NUV_ERROR_INVALID_STATE);
    EXPECT_THAT(told(nuv_connect_resume_playback, "state PLAYING"),
                testing::Contains(testing::EndsWith(" 0|||")));
}

TEST_F(Control, SeeksInARowBecomeOneAndASeekBeyondTheEndEndsTheTrack) {
    start_playing();
    for (const uint64_t position : {100U, 200U, 4294967295U}) {
        EXPECT_EQ(seek(position), NUV_ERROR_OK);
    }
    device.take = nullptr;
    device.run_until_line("end of track");
    EXPECT_EQ(std::count(device.lines.begin(), device.lines.end(), "seek in progress"), 1);
    EXPECT_TRUE(device.has_line("seeked 1 8000"));
    EXPECT_THAT(device.pcm_of_stream[1], IsEmpty());
    device.run_until_line("finished 2");
    EXPECT_TRUE(device.pcm_of_stream[2] == tracks[1].pcm);
}

TEST_F(Control, SeekBackAfterTheHandOverBringsTheNextTrackAgainInFull) {
    start_playing();
    hold_end_of_track(true);
    take_only(2, 100);
    run_until_taken(2, 100);
    device.take = nullptr;
    device.tail_ms = 4;
    device.holds_hand_over = false;
    device.take_lines();
    EXPECT_EQ(seek(250), NUV_ERROR_OK);
    device.run_until_line("seeked 1 250");
    EXPECT_THAT(device.lines, ElementsAre("seek in progress", "dispose 2", "seeked 1 250"));
    device.run_until_line("finished 3");
    EXPECT_TRUE(device.pcm_of_stream[1] == tracks[0].pcm_from_ms(250));
    EXPECT_TRUE(device.pcm_of_stream[3] == tracks[1].pcm);
}

TEST_F(Control, AModeChangeWithdrawsTheAnnouncedTrack) {
    start_playing();
    hold_end_of_track(false);
    device.take = nullptr;
    device.run_until([&] { return device.next() != nullptr && device.active_is_finished(); });
    device.take_lines();
    EXPECT_EQ(nuv_connect_set_loop_mode(device.core(), NUV_LOOP_MODE_ONE), NUV_ERROR_OK);
    device.run_until_line("metadata 3 0|||");
    EXPECT_THAT(device.lines, ElementsAre("controls ONE 0", "dispose 2", StartsWith("started 3"),
                                          "metadata 3 0|||"));
}

TEST_F(Control, WhatMakesNoSenseNowIsAnErrorResultAndChangesNothing) {
    nuv_connect* core = device.core();
    for (const auto control : {nuv_connect_pause_playback, nuv_connect_next_track}) {
        EXPECT_EQ(call(control), NUV_ERROR_NOT_CONNECTED);
        EXPECT_EQ(control(nullptr), NUV_ERROR_INVALID_ARGUMENT);
    }
    EXPECT_EQ(nuv_connect_set_volume(core, 101), NUV_ERROR_INVALID_ARGUMENT);
    EXPECT_EQ(nuv_connect_set_device_name(core, ""), NUV_ERROR_INVALID_ARGUMENT);
    EXPECT_EQ(nuv_connect_notify_playback_stopped(core), NUV_ERROR_INVALID_STATE);
    EXPECT_EQ(nuv_connect_resume_audio_delivery(core, 1), NUV_ERROR_NOT_FOUND);

    take_only(1, 1000);
    ASSERT_EQ(device.play(folder.path(), false), NUV_ERROR_OK);
    EXPECT_EQ(call(nuv_connect_pause_playback), NUV_ERROR_INVALID_STATE);
    EXPECT_EQ(seek(0), NUV_ERROR_INVALID_STATE);
    device.run_for_ms(10);
    EXPECT_EQ(device.active(), nullptr) << "joined, but not asked to play";
    EXPECT_EQ(call(nuv_connect_resume_playback), NUV_ERROR_OK);
    device.run_until_line("state PLAYING");

    const auto connect = [&](const char* endpoint, uint64_t expiry) {
        return nuv_connect_connect(core, "other", endpoint, "", expiry, "", "", 0, true);
    };
    const auto now = static_cast<uint64_t>(std::time(nullptr));
    EXPECT_EQ(connect(folder.path().c_str(), now - 10), NUV_ERROR_TOKEN_EXPIRED);
    EXPECT_EQ(connect("ftp://example.org/a.wav", now + 1000), NUV_ERROR_EMPTY_SESSION);
    EXPECT_EQ(connect(nullptr, 0), NUV_ERROR_INVALID_ARGUMENT);
    const char* session = nullptr;
    EXPECT_EQ(nuv_connect_get_session_id(core, &session), NUV_ERROR_OK);
    EXPECT_STREQ(session, "session");

    device.run_until_line("next available 1");
    EXPECT_THAT(told(nuv_connect_deactivate_and_disconnect_renderer, "state STOPPED"),
                ElementsAre("active 0", "next available 0", "stop", "dispose 1", "state STOPPED"));
    EXPECT_EQ(nuv_connect_get_session_id(core, &(session = "some")), NUV_ERROR_OK);
    EXPECT_STREQ(session, "some") << "left alone when there is none";
}

TEST_F(Control, TracksThatTheRendererRefusesArePassedOverButNotAllOfThem) {
    uint64_t last_refused = 1;
    device.take = [&](size_t offered) {
        device.fail_playback(device.playing_id() <= last_refused);
        return offered;
    };
    ASSERT_EQ(device.play(folder.path()), NUV_ERROR_OK);
    device.run_until_line("finished 2");
    EXPECT_TRUE(device.pcm_of_stream[2] == tracks[1].pcm);

    ASSERT_EQ(call(nuv_connect_stop_playback), NUV_ERROR_OK);
    device.run_until_line("state STOPPED");
    last_refused = device.pcm_of_stream.size() + 2;  // of a card that is gone: the next three
    device.take_lines();
    ASSERT_EQ(device.play(folder.path()), NUV_ERROR_OK);
    device.run_until_line("state STOPPED");
    last_refused = 0;
    const uint64_t id = device.pcm_of_stream.size();
    ASSERT_EQ(call(nuv_connect_resume_playback), NUV_ERROR_OK);
    device.run_until_line("finished " + std::to_string(id));
    EXPECT_TRUE(device.pcm_of_stream[id] == tracks[0].pcm) << "the session is where it was";
}

}  // namespace
