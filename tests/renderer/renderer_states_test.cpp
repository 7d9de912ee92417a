// Playback states and data flow.
#include "renderer/renderer_fixture.h"

using testing::ElementsAre;

namespace {

using RendererStates = RendererTest;
using RendererDataFlow = RendererTest;

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
    initiate(NUV_PLAYBACK_STATE_STOPPED);
    EXPECT_THAT(journal::take(), ElementsAre("host allow_source", "sink open 44100", "sink close",
                                             "sdk notify_playback_error"));
    fake_sdk::set_result("notify_playback_initiated", NUV_ERROR_INTERNAL);
    initiate();
    EXPECT_EQ(journal::take().back(), "sdk notify_playback_error");
    expect_stopped();
    fake_sdk::set_result("notify_playback_initiated", NUV_ERROR_OK);
    initiate();
    EXPECT_EQ(offer(1, 400), 400U);
}

TEST_F(RendererStates, ASeekReportsWhereItBeganUntilItIsCompleteOrStopped) {
    play_first_stream(250);
    announce_seek();
    EXPECT_THAT(journal::take(), ElementsAre("host position 250", "sink flush"));
    EXPECT_EQ(position(), 250U) << "although the sink is empty";
    seeked(1, 60000);
    EXPECT_EQ(state(), AUDIO_RENDERER_STATE_PLAYING);
    EXPECT_EQ(position(), 60000U);

    pause();
    announce_seek();
    EXPECT_EQ(state(), AUDIO_RENDERER_STATE_PAUSED_SEEKING);
    seeked(1, 5000);
    EXPECT_EQ(state(), AUDIO_RENDERER_STATE_PAUSED);
    EXPECT_EQ(position(), 5000U);

    announce_seek();
    journal::take();
    stop();
    EXPECT_THAT(journal::take(), ElementsAre("sink close", "sdk notify_playback_stopped"));
    expect_stopped();
    EXPECT_FALSE(playback_paused);
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

TEST(RendererLife, WithoutASinkThereIsNoRenderer) {
    fake_sink::reset();
    fake_sink::state().exists = false;
    uv_loop_t loop{};
    ASSERT_EQ(uv_loop_init(&loop), 0);
    EXPECT_EQ(audio_renderer_new(&loop, "pcm", "mixer", "element"), nullptr);
    EXPECT_EQ(uv_loop_close(&loop), 0) << "nothing is left on the loop";
}

}  // namespace
