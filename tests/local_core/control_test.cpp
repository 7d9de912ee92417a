// What a controller asks for, and what becomes of it.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <random>
#include <sstream>
#include <thread>

#include "local_core/audio_files.h"
#include "local_core/scripted_device.h"

namespace {

using testing::ElementsAre;
using testing::EndsWith;
using testing::IsEmpty;
using testing::StartsWith;

// Four tracks, longer than the core decodes ahead, and a device that takes what it is told to.
class Control : public ScriptedDevice {
  protected:
    Control() {
        for (int i = 0; i < 4; ++i) {
            tracks.push_back(write_audio(folder, std::to_string(i) + ".wav", 8 * 8000, kWav, 8000));
        }
    }

    // Starts the folder's first track and takes its first 1000 frames.
    void start_playing() {
        const uint64_t id = pcm_of_stream.empty() ? 1 : pcm_of_stream.size();
        take_only(id, 1000);
        ASSERT_EQ(play(folder.path()), NUV_ERROR_OK);
        run_until_line("state PLAYING");
        run_until_taken(id, 1000);
        take_lines();
    }
    // From now on of this stream only so many frames, since its start or last seek, are taken.
    void take_only(uint64_t id, size_t frames) {
        take = [this, id, frames](size_t offered) {
            const size_t taken = pcm_of_stream.size() > id ? pcm_of_stream[id].size() / 4 : 0;
            const bool concerned = playing_id() == id;
            return concerned ? std::min(offered, frames > taken ? (frames - taken) * 4 : 0)
                             : offered;
        };
    }
    void run_until_taken(uint64_t id, size_t frames) {
        run_until([this, id, frames] {
            const auto& pcm = pcm_of_stream;
            return pcm.size() > id && pcm[id].size() == frames * 4;
        });
    }
    // Tracks do not end for the time of a test; the next one flows behind the tail, or waits.
    void hold_end_of_track(bool next_flows) {
        tail_ms = next_flows ? 400 : 60000;
        holds_hand_over = next_flows;
    }
    nuv_error call(nuv_error (*control)(nuv_connect*)) { return control(core()); }
    // What the device is told of a control, up to a line.
    std::vector<std::string> told(nuv_error (*control)(nuv_connect*), const std::string& last) {
        take_lines();
        EXPECT_EQ(call(control), NUV_ERROR_OK);
        run_until_line(last);
        return take_lines();
    }
    nuv_error seek(uint64_t position_ms) { return nuv_connect_seek_time(core(), position_ms); }
    static constexpr int kWav = SF_FORMAT_WAV | SF_FORMAT_PCM_16;
    TempDir folder;
    std::vector<AudioFile> tracks;
    uint64_t last_refused = 0;  // of the streams that a renderer fails at
};

TEST_F(Control, SkipsInARowAndAPauseBringTheLastOneUpPaused) {
    start_playing();
    hold_end_of_track(false);
    take = nullptr;
    run_until([&] { return active_is_finished() && next() != nullptr; });
    EXPECT_EQ(call(nuv_connect_pause_playback), NUV_ERROR_OK);
    EXPECT_EQ(call(nuv_connect_next_track), NUV_ERROR_OK);
    EXPECT_THAT(told(nuv_connect_next_track, "state PAUSED"),
                testing::IsSupersetOf({"metadata 3 '2'", "initiate PAUSED"}));
}

TEST_F(Control, NextWhileTheNextTrackIsAnnouncedOrFlowsPlaysItFromItsStart) {
    for (const bool flows : {false, true}) {
        SCOPED_TRACE(flows);
        start_playing();
        const uint64_t id = active()->id + 1;
        hold_end_of_track(flows);
        take_only(id, 100);
        run_until([&] { return active_is_finished() && next() != nullptr; });
        if (flows) {
            run_until_taken(id, 100);
        }
        take = nullptr;
        told(nuv_connect_next_track, "finished " + std::to_string(id + 1));
        EXPECT_TRUE(pcm_of_stream[id + 1] == tracks[1].pcm);
        told(nuv_connect_deactivate_and_disconnect_renderer, "state STOPPED");
    }
}

TEST_F(Control, PreviousRestartsALateTrackAndGoesBackFromAnEarlyOne) {
    start_playing();
    EXPECT_EQ(call(nuv_connect_next_track), NUV_ERROR_OK);
    for (const size_t ms : {3001U, 3000U}) {  // heard
        take_only(3, 1000);                   // which begins to flow as soon as it is there
        const auto third = take;
        take_only(2, ms * 8);
        take = [this, third, second = take](size_t offered) {
            return playing_id() == 3 ? third(offered) : second(offered);
        };
        run_until_taken(2, ms * 8);
        told(nuv_connect_previous_track, ms > 3000 ? "seeked 2 0" : "metadata 3 '0'");
    }
    run_until_taken(3, 1000);
    // Nothing precedes the first track: back to its start.
    told(nuv_connect_previous_track, "seeked 3 0");
}

TEST_F(Control, ASeekWhilePausedIsExactAndAStopForgetsIt) {
    start_playing();
    EXPECT_EQ(call(nuv_connect_pause_playback), NUV_ERROR_OK);
    EXPECT_EQ(seek(7), NUV_ERROR_OK);
    run_until_line("state PAUSED");
    EXPECT_THAT(take_lines(),
                ElementsAre("seek in progress", "seeked 1 7", "pause", "state PAUSED"));
    take = nullptr;
    hold_end_of_track(false);
    told(nuv_connect_resume_playback, "finished 1");
    EXPECT_TRUE(pcm_of_stream[1] == tracks[0].pcm_from_frame(7 * 8));
    EXPECT_THAT(told(nuv_connect_stop_playback, "state STOPPED"), testing::Contains("stop"));
    EXPECT_THAT(told(nuv_connect_resume_playback, "state PLAYING"),
                testing::Contains(testing::EndsWith(" '0'")));
}

TEST_F(Control, SeeksInARowBecomeOneAndASeekBeyondTheEndEndsTheTrack) {
    start_playing();
    for (const uint64_t position : {100U, 200U, 4294967295U}) {
        EXPECT_EQ(seek(position), NUV_ERROR_OK);
    }
    take = nullptr;
    run_until_line("end of track");
    EXPECT_EQ(std::count(lines.begin(), lines.end(), "seek in progress"), 1);
    EXPECT_TRUE(has_line("seeked 1 8000"));
    EXPECT_THAT(pcm_of_stream[1], IsEmpty());
    run_until_line("finished 2");
    EXPECT_TRUE(pcm_of_stream[2] == tracks[1].pcm);
}

TEST_F(Control, SeekBackAfterTheHandOverBringsTheNextTrackAgainInFull) {
    start_playing();
    hold_end_of_track(true);
    take_only(2, 100);
    run_until_taken(2, 100);
    take = nullptr;
    tail_ms = 4;
    holds_hand_over = false;
    take_lines();
    EXPECT_EQ(seek(250), NUV_ERROR_OK);
    run_until_line("seeked 1 250");
    EXPECT_THAT(lines, ElementsAre("seek in progress", "dispose 2", "seeked 1 250"));
    run_until_line("finished 3");
    EXPECT_TRUE(pcm_of_stream[1] == tracks[0].pcm_from_frame(250 * 8));
    EXPECT_TRUE(pcm_of_stream[3] == tracks[1].pcm);
}

TEST_F(Control, AModeChangeWithdrawsTheAnnouncedTrack) {
    start_playing();
    hold_end_of_track(false);
    take = nullptr;
    run_until([&] { return next() != nullptr && active_is_finished(); });
    take_lines();
    EXPECT_EQ(nuv_connect_set_loop_mode(core(), NUV_LOOP_MODE_ONE), NUV_ERROR_OK);
    run_until_line("metadata 3 '0'");
    EXPECT_THAT(lines, ElementsAre("controls ONE 0", "dispose 2", StartsWith("started 3"),
                                   "metadata 3 '0'"));
}

TEST_F(Control, WhatMakesNoSenseIsAnErrorResult) {
    for (const auto control : {nuv_connect_pause_playback, nuv_connect_next_track}) {
        EXPECT_EQ(call(control), NUV_ERROR_NOT_CONNECTED);
        EXPECT_EQ(control(nullptr), NUV_ERROR_INVALID_ARGUMENT);
    }
    EXPECT_EQ(nuv_connect_set_device_name(core(), ""), NUV_ERROR_INVALID_ARGUMENT);
    EXPECT_EQ(nuv_connect_notify_playback_stopped(core()), NUV_ERROR_INVALID_STATE);
    EXPECT_EQ(nuv_connect_resume_audio_delivery(core(), 1), NUV_ERROR_NOT_FOUND);
    EXPECT_EQ(nuv_connect_connect(core(), "id", nullptr, "", 0, "", "", 0, true),
              NUV_ERROR_INVALID_ARGUMENT);
    EXPECT_EQ(play(folder.path(), false), NUV_ERROR_OK);
    EXPECT_EQ(call(nuv_connect_pause_playback), NUV_ERROR_INVALID_STATE) << "asked for no playing";
    EXPECT_EQ(play("ftp://example.org/a.wav"), NUV_ERROR_EMPTY_SESSION);
}

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

TEST_F(Control, AStopWhileTheNextSessionIsPreparedIsForThatOneToo) {
    start_playing();
    ASSERT_EQ(nuv_connect_connect(core(), "next", folder.path().c_str(), "", 0, "", "", 0, true),
              NUV_ERROR_OK);
    EXPECT_EQ(call(nuv_connect_stop_playback), NUV_ERROR_OK);
    run_until([&] {
        const char* id = nullptr;
        return nuv_connect_get_session_id(core(), &id) == NUV_ERROR_OK && id == std::string("next");
    });
    EXPECT_EQ(call(nuv_connect_pause_playback), NUV_ERROR_INVALID_STATE) << "it plays";
    EXPECT_EQ(call(nuv_connect_resume_playback), NUV_ERROR_OK);
    run_until_line("state PLAYING");
}

TEST_F(Control, NothingRunsWhilePaused) {
    start_playing();
    told(nuv_connect_pause_playback, "state PAUSED");
    // With the queue full and the delivery closed neither thread takes a turn: sooner or later a
    // stretch comes without one, and never where one polls.
    std::string before;
    for (int stretch = 0; before.empty() || sleeps_of_decoder() != before; ++stretch) {
        ASSERT_LT(stretch, 50);
        run_for(std::chrono::milliseconds(50));
        before = sleeps_of_decoder();
        ASSERT_NE(before, "");
        std::this_thread::sleep_for(std::chrono::milliseconds(200));
    }
    EXPECT_EQ(uv_run(&loop_, UV_RUN_NOWAIT), 1);
    EXPECT_NE(uv_backend_timeout(&loop_), 0) << "the loop would spin";
}

TEST_F(Control, TracksThatTheRendererRefusesArePassedOverButNotAllOfThem) {
    last_refused = 1;
    take = [this](size_t offered) {
        fail_playback(playing_id() <= last_refused);
        return offered;
    };
    ASSERT_EQ(play(folder.path()), NUV_ERROR_OK);
    run_until_line("finished 2");
    EXPECT_TRUE(pcm_of_stream[2] == tracks[1].pcm);

    ASSERT_EQ(call(nuv_connect_stop_playback), NUV_ERROR_OK);
    run_until_line("state STOPPED");
    last_refused = pcm_of_stream.size() + 2;  // of a card that is gone: the next three
    take_lines();
    ASSERT_EQ(play(folder.path()), NUV_ERROR_OK);
    run_until_line("state STOPPED");
    const uint64_t id = std::exchange(last_refused, 0) + 1;
    ASSERT_EQ(call(nuv_connect_resume_playback), NUV_ERROR_OK);
    run_until_line("finished " + std::to_string(id));
    EXPECT_TRUE(pcm_of_stream[id] == tracks[0].pcm) << "the session is where it was";
}

TEST_F(Control, ShortCountsLoseNothing) {
    take = [random = std::minstd_rand(1)](size_t offered) mutable {
        const size_t room = random() % 6000;
        return random() % 4 == 0 ? offered : room;
    };
    ASSERT_EQ(play(folder.path()), NUV_ERROR_OK);
    run_until_line("finished 1");
    EXPECT_TRUE(pcm_of_stream[1] == tracks[0].pcm);
}

TEST_F(Control, UnplayableTracksArePassedOverAndCutOnesPlayedAsFarAsTheyGo) {
    folder.write("1.wav", "not audio");
    folder.write("5.flac", "");
    const AudioFile cut = write_audio(folder, "6.flac", 44100, SF_FORMAT_FLAC | SF_FORMAT_PCM_16);
    std::filesystem::resize_file(cut.path, std::filesystem::file_size(cut.path) / 2);
    folder.write("list.m3u", "1.wav\n2.wav\nmissing.wav\n5.flac\n6.flac\n3.wav\n1.wav\n");
    ASSERT_EQ(play(folder / "list.m3u"), NUV_ERROR_OK);
    run_until_line("state STOPPED");
    ASSERT_EQ(pcm_of_stream.size(), 4U);
    EXPECT_TRUE(pcm_of_stream[1] == tracks[2].pcm);
    EXPECT_LT(pcm_of_stream[2].size(), cut.pcm.size());
    EXPECT_TRUE(pcm_of_stream[3] == tracks[3].pcm);
}

TEST_F(Control, WhatASoundDoesToItsReaderCostsThatTrackAlone) {
    if (getenv("NUVIO_READER_UNFILTERED") != nullptr) {
        GTEST_SKIP() << "this kernel has no filter of system calls";
    }
    const char* const before = getenv("NUVIO_READERS");
    const std::string readers = before != nullptr ? before : "";
    const auto here = std::filesystem::read_symlink("/proc/self/exe").parent_path();
    setenv("NUVIO_READERS", (here / "attacking").c_str(), 1);
    const std::vector<std::string> attacks = {
        "bytes beyond a block", "half a frame", "a block of nothing", "more blocks than there are",
        "blocks that come again", "news that nobody waits for", "bytes of a file",
        "another's answer", "take the ring away", "write beyond the ring", "nothing for an answer",
        "open a file", "make a file", "make a socket", "connect", "listen", "execute", "fork",
        "trace the parent", "kill the parent", "make code", "take memory", "take the stack",
        "touch nothing", "half an answer", "leave",
        // Not even opened:
        "any rate", "any channels", "any length"};
    constexpr size_t kNotOpened = 3;
    std::string list = "1.wav\n";
    for (size_t i = 0; i < attacks.size(); ++i) {
        const std::string name = std::to_string(i) + ".flac";
        folder.write(name, "attack: " + attacks[i]);
        list += name + "\n";
    }
    folder.write("list.m3u", list + "2.wav\n");
    ASSERT_EQ(play(folder / "list.m3u"), NUV_ERROR_OK);
    run_until_line("state STOPPED");
    setenv("NUVIO_READERS", readers.c_str(), 1);
    ASSERT_EQ(pcm_of_stream.size(), 1 + 1 + attacks.size() - kNotOpened + 1);
    EXPECT_TRUE(pcm_of_stream[1] == tracks[1].pcm);
    for (size_t id = 2; id < pcm_of_stream.size() - 1; ++id) {
        EXPECT_LE(pcm_of_stream[id].size(), 8U) << attacks[id - 2];
    }
    EXPECT_TRUE(pcm_of_stream.back() == tracks[2].pcm);
}

// Noise over the whole width; with its frames 8 kHz where not said otherwise.
std::string write_flac(const TempDir& to, const std::string& name, int bits, int channels = 2,
                       int rate = 8000) {
    std::minstd_rand random(static_cast<unsigned>(bits * channels));
    std::vector<int> samples(static_cast<size_t>(channels) * 12'345);
    std::generate(samples.begin(), samples.end(),
                  [&] { return static_cast<int>(static_cast<uint32_t>(random()) << 1U); });
    SF_INFO info{};
    info.samplerate = rate;
    info.channels = channels;
    info.format = SF_FORMAT_FLAC | (bits == 8    ? SF_FORMAT_PCM_S8
                                    : bits == 16 ? SF_FORMAT_PCM_16
                                                 : SF_FORMAT_PCM_24);
    const std::string path = to.write(name + ".flac", "");
    SNDFILE* const out = sf_open(path.c_str(), SFM_WRITE, &info);
    sf_write_int(out, samples.data(), static_cast<sf_count_t>(samples.size()));
    sf_close(out);
    return path;
}

void change(const std::string& path, std::streamoff place, const std::string& bytes) {
    std::fstream file(path, std::ios::in | std::ios::out | std::ios::binary);
    file.seekp(place) << bytes;
}

TEST_F(Control, OfAFlacTrackTheSamplesThatTheDeviceTookAreCheckedAgainstItsSum) {
    constexpr std::streamoff kSum = 26;
    const TempDir flacs;
    take = [](size_t offered) { return offered > 10'000 ? offered / 3 : offered; };
    write_flac(flacs, "0 of 8", 8);
    write_flac(flacs, "1 of 16", 16);
    write_flac(flacs, "2 of 24", 24);
    write_flac(flacs, "3 of 1x16", 16, 1);
    change(write_flac(flacs, "4 none", 16), kSum, std::string(16, '\0'));
    change(write_flac(flacs, "5 other", 16), kSum, "x");
    write_flac(flacs, "6 converted", 16, 2, 22050);
    const std::string cut = write_flac(flacs, "7 cut off", 16);
    std::filesystem::resize_file(cut, std::filesystem::file_size(cut) * 2 / 3);
    ASSERT_EQ(play(flacs.path()), NUV_ERROR_OK);
    run_until([&] { return verdicts.size() == 8; });
    EXPECT_THAT(
        verdicts,
        ElementsAre(EndsWith("8.flac: verified"), EndsWith("16.flac: verified"),
                    EndsWith("24.flac: not verified: above CD quality"),
                    EndsWith("1x16.flac: verified"), EndsWith("not verified: no sum in the file"),
                    EndsWith("not verified: its samples are not those of the sum in the "
                             "file"),
                    EndsWith("not verified: converted"), EndsWith("not verified: it ended early")));
}

TEST_F(Control, ATrackThatWasSoughtOrNotPlayedWholeIsNotVerified) {
    const TempDir flacs;
    for (const char* name : {"0", "1", "2"}) {
        write_flac(flacs, name, 16);
    }
    take_only(1, 1000);
    ASSERT_EQ(play(flacs.path()), NUV_ERROR_OK);
    run_until_taken(1, 1000);
    EXPECT_EQ(call(nuv_connect_next_track), NUV_ERROR_OK);
    take_only(2, 1000);
    run_until_taken(2, 1000);
    EXPECT_EQ(seek(500), NUV_ERROR_OK);
    take_only(3, 1000);
    run_until_line("dispose 2");
    run_until_taken(3, 1000);
    EXPECT_EQ(seek(0), NUV_ERROR_OK);
    run_until_line("seeked 3 0");
    take = nullptr;
    run_until([&] { return verdicts.size() == 3; });
    EXPECT_THAT(verdicts, ElementsAre(EndsWith("not verified: not played to its end"),
                                      EndsWith("not verified: sought or paused"),
                                      EndsWith("2.flac: verified")))
        << "begun anew is played whole";
}

}  // namespace
