// Playback states, data flow, volume and mute.
#include <functional>

#include "renderer/renderer_fixture.h"

using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

namespace {

class RendererStates : public RendererTest {};
class RendererDataFlow : public RendererTest {};
class RendererControls : public RendererTest {};

TEST_F(RendererStates, InitiatingOpensTheSinkAndLetsTheSdkDeliver) {
    start(1);
    EXPECT_EQ(offer(1, 4), 0U) << "every stream starts closed";
    initiate();
    EXPECT_THAT(journal::take(),
                ElementsAre("host allow_source", "sink open 44100", "sdk resume_audio_delivery 1",
                            "sdk notify_playback_initiated 44100 2 0"));
    EXPECT_EQ(state(), AUDIO_RENDERER_STATE_PLAYING);
}

TEST_F(RendererStates, InitiatingPausedWaitsForTheResume) {
    start(1);
    initiate(NUV_PLAYBACK_STATE_PAUSED);
    EXPECT_THAT(journal::take(), ElementsAre("host allow_source", "sink open 44100",
                                             "sdk notify_playback_initiated 44100 2 0"));
    EXPECT_EQ(offer(1, 400), 0U);
    resume();
    EXPECT_THAT(journal::take(),
                ElementsAre("sdk resume_audio_delivery 1", "sdk notify_playback_resumed"));
    EXPECT_EQ(offer(1, 400), 400U);
}

TEST_F(RendererStates, AFailedInitiationIsReportedAndTheNextOneWorks) {
    initiate();
    EXPECT_THAT(journal::take(), ElementsAre("host allow_source", "sdk notify_playback_error"))
        << "no stream";
    start(1);

    journal::host_allows_source = false;
    initiate();
    EXPECT_THAT(journal::take(), ElementsAre("host allow_source", "sdk notify_playback_error",
                                             "sdk deactivate_and_disconnect_renderer"));
    journal::host_allows_source = true;

    fake_sink::state().can_open = false;
    initiate();
    EXPECT_THAT(journal::take(),
                ElementsAre("host allow_source", "sink open 44100", "sdk notify_playback_error"));
    fake_sink::state().can_open = true;

    initiate(NUV_PLAYBACK_STATE_STOPPED);
    EXPECT_THAT(journal::take(), ElementsAre("host allow_source", "sink open 44100", "sink close",
                                             "sdk notify_playback_error"));

    fake_sdk::set_result("notify_playback_initiated", NUV_ERROR_INTERNAL);
    initiate();
    EXPECT_THAT(journal::take(), Contains("sdk notify_playback_error"));
    expect_stopped();
    fake_sdk::set_result("notify_playback_initiated", NUV_ERROR_OK);

    initiate();
    EXPECT_EQ(offer(1, 400), 400U);
}

TEST_F(RendererStates, CallsOutsideTheirStatesAreLoggedAndIgnored) {
    testing::internal::CaptureStdout();
    start(1);
    pause();
    resume();
    stop();
    announce_seek();
    seeked(1, 0);
    initiate();
    initiate();
    resume();
    announce_seek();
    announce_seek();
    pause();
    EXPECT_EQ(state(), AUDIO_RENDERER_STATE_PLAYING_SEEKING);
    EXPECT_THAT(
        journal::take(),
        ElementsAre("host allow_source", "sink open 44100", "sdk resume_audio_delivery 1",
                    "sdk notify_playback_initiated 44100 2 0", "host position 0", "sink flush"));
    EXPECT_THAT(testing::internal::GetCapturedStdout(),
                HasSubstr("ERROR SampleApp: Ignoring pause playback: not allowed while stopped\n"));
}

TEST_F(RendererStates, EveryStateButStoppedCanBeStopped) {
    const auto stop_after = [&](const std::function<void()>& prepare) {
        start(1);
        initiate();
        prepare();
        journal::take();
        stop();
        EXPECT_THAT(journal::take(), ElementsAre("sink close", "sdk notify_playback_stopped"));
        expect_stopped();
        EXPECT_EQ(offer(1, 4), 0U);
        dispose(1);
    };
    stop_after([] {});
    stop_after([&] { pause(); });
    stop_after([&] { announce_seek(); });
    stop_after([&] {
        pause();
        announce_seek();
    });
    EXPECT_FALSE(playback_paused);
}

TEST_F(RendererStates, ASeekReportsWhereItBeganUntilItIsComplete) {
    play_first_stream(250);
    announce_seek();
    EXPECT_THAT(journal::take(), ElementsAre("host position 250", "sink flush"));
    EXPECT_EQ(position(), 250U) << "although the sink is empty";
    EXPECT_EQ(state(), AUDIO_RENDERER_STATE_PLAYING_SEEKING);
    seeked(1, 60000);
    EXPECT_EQ(state(), AUDIO_RENDERER_STATE_PLAYING);
    EXPECT_EQ(position(), 60000U);

    pause();
    announce_seek();
    EXPECT_EQ(state(), AUDIO_RENDERER_STATE_PAUSED_SEEKING);
    seeked(1, 5000);
    EXPECT_EQ(state(), AUDIO_RENDERER_STATE_PAUSED);
    EXPECT_EQ(position(), 5000U);
    stop();
    EXPECT_EQ(position(), 0U);
}

TEST_F(RendererDataFlow, WhatDoesNotFitIsOfferedAgainWhenThereIsRoom) {
    start(1);
    initiate();
    journal::take();
    fake_sink::state().room = 1000;
    EXPECT_EQ(offer(1, 4000), 1000U);
    EXPECT_EQ(offer(1, 3000), 0U);
    EXPECT_THAT(journal::take(), ElementsAre("sink write 1000")) << "closed by the short count";
    fake_sdk::set_result("resume_audio_delivery", NUV_ERROR_INTERNAL);
    fake_sink::signal_space();
    fake_sink::signal_space();
    EXPECT_THAT(journal::take(), ElementsAre("sdk resume_audio_delivery 1"))
        << "an open delivery is not resumed, not even after a failure";
    fake_sink::state().room = 0;
    EXPECT_EQ(offer(1, 3000), 0U) << "ALSA is full again";
    fake_sink::signal_space();
    fake_sink::state().room = 4000;
    EXPECT_EQ(offer(1, 3000), 3000U);
    EXPECT_THAT(journal::take(),
                ElementsAre("sink write 0", "sdk resume_audio_delivery 1", "sink write 3000"));
}

TEST_F(RendererDataFlow, APauseDropsWhatIsQueuedAndRefusesWhatComes) {
    play_first_stream(400);
    pause();
    EXPECT_THAT(journal::take(), ElementsAre("sink flush", "sdk notify_playback_paused"));
    EXPECT_EQ(position(), 1000U) << "the dropped audio counts as consumed";

    fake_sink::signal_space();
    testing::internal::CaptureStdout();
    EXPECT_EQ(offer(1, 4000), 0U);
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "Audio playback is paused, return audio samples ");
    resume();
    EXPECT_EQ(offer(1, 4000), 4000U);
    EXPECT_EQ(journal::take().back(), "sink write 4000");
}

TEST_F(RendererDataFlow, AFailedWriteStopsWithAnErrorInsideTheDelivery) {
    play_first_stream();
    fake_sink::state().can_write = false;
    EXPECT_EQ(offer(1, 4000), 0U);
    EXPECT_THAT(journal::take(),
                ElementsAre("sink write 0", "sink close", "sdk notify_playback_error"));
    expect_stopped();
    EXPECT_EQ(offer(1, 4000), 0U);

    fake_sink::state().can_write = true;
    dispose(1);
    start(2);
    initiate();
    EXPECT_EQ(offer(2, 4000), 4000U);
}

TEST_F(RendererControls, TheDevicesVolumeAndMuteGoToTheSdk) {
    fake_sdk::set_result("set_volume", NUV_ERROR_INTERNAL);
    audio_renderer_set_core(renderer, core);
    EXPECT_THAT(journal::take(), ElementsAre("sdk set_volume 50", "sdk set_mute_state false"));
    fake_sink::change_volume(70);
    fake_sink::change_mute_state(true);
    EXPECT_THAT(journal::take(), ElementsAre("sdk set_volume 70", "sdk set_mute_state true"));
}

TEST_F(RendererControls, TheSdksNewsReachTheDeviceAndTheHost) {
    media.volume_changed(core, 33, media.context);
    media.mute_state_changed(core, true, media.context);
    EXPECT_THAT(journal::take(),
                ElementsAre("host volume", "sink volume 33", "host mute_state", "sink mute"));

    fake_sdk::Values values;
    values.playback_state = NUV_PLAYBACK_STATE_PAUSED;
    fake_sdk::set_values(values);
    testing::internal::CaptureStdout();
    media.playback_state_changed(core, NUV_PLAYBACK_STATE_PLAYING, media.context);
    fake_sdk::set_result("get_playback_state", NUV_ERROR_INTERNAL);
    media.playback_state_changed(core, NUV_PLAYBACK_STATE_PLAYING, media.context);
    media.playback_controls_changed(core, NUV_LOOP_MODE_ALL, true, media.context);
    media.maximum_audio_quality_changed(core, NUV_AUDIO_QUALITY_CD, media.context);
    media.playback_actions_availability_changed(core, false, media.context);
    const std::string log = testing::internal::GetCapturedStdout();
    EXPECT_THAT(journal::take(), ElementsAre("host playback_status 2", "host shuffle_repeat"));
    EXPECT_THAT(log, HasSubstr("\nplayback_status = 2\n"));
    EXPECT_THAT(log, HasSubstr("ERROR SampleApp: Failed to notify Nuvio Connect: fake error\n"));
    EXPECT_THAT(log, HasSubstr("shuffle mode: enabled\n"));
    EXPECT_THAT(log, HasSubstr("next: not available\n"));
}

TEST_F(RendererControls, MetadataBelongsToThePlayingSource) {
    EXPECT_EQ(callmetadata(core, renderer), nullptr);
    play_first_stream();
    const std::unique_ptr<nuv_stream_metadata> metadata(callmetadata(core, renderer));
    ASSERT_NE(metadata, nullptr);
    EXPECT_STREQ(metadata->artist, "Artist");
    nuv_audio_format format{};
    audio_renderer_get_playing_format(&format, renderer);
    EXPECT_TRUE(audio_formats_are_same(&format, &cd));
    EXPECT_EQ(audio_renderer_get_playing_duration(renderer), 180000U);

    fake_sdk::set_result("get_stream_metadata", NUV_ERROR_NOT_FOUND);
    testing::internal::CaptureStdout();
    EXPECT_EQ(callmetadata(core, renderer), nullptr);
    EXPECT_THAT(testing::internal::GetCapturedStdout(),
                HasSubstr("Failed to notify Nuvio Connect Metadata: fake error err = 3\n"));
}

TEST(RendererLife, WithoutASinkThereIsNoRenderer) {
    fake_sink::reset();
    fake_sink::state().exists = false;
    uv_loop_t loop{};
    ASSERT_EQ(uv_loop_init(&loop), 0);
    EXPECT_EQ(audio_renderer_new(&loop, "pcm", "mixer", "element"), nullptr);
    EXPECT_EQ(uv_loop_close(&loop), 0) << "nothing is left on the loop";
}

using RendererDeathTest = RendererTest;

TEST_F(RendererDeathTest, AnotherCoreIsFatal) {
    auto* other = reinterpret_cast<nuv_connect*>(&loop);
    EXPECT_DEATH(media.pause_playback(other, media.context), "");
    EXPECT_DEATH(streams.finished(other, 1, streams.context), "");
}

}  // namespace
