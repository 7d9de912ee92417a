// What a session on the simulated card and a random order of events can't show: what comes at once
// and what is awaited, and for how long.
#include <array>

#include "renderer/renderer_fixture.h"

using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

class TrackTransition : public RendererTest {
  protected:
    // Stream 1 plays and has been delivered whole; the sink still holds so many ms of it.
    void end_first_stream(uint64_t held_ms) {
        start(1);
        initiate();
        ASSERT_EQ(offer(1, kCdSecond), kCdSecond);
        hold_ms(held_ms);
        finish(1);
        journal::take();
    }
    // And stream 2 flows behind its last 20 ms.
    void hand_over() {
        end_first_stream(20);
        start(2);
        ASSERT_TRUE(run_until("sdk resume_audio_delivery 2"));
    }
    static void hold_ms(uint64_t ms) { fake_sink::state().buffered_frames = ms * 44100 / 1000; }
    uint64_t end_due_in() { return uv_timer_get_due_in(&renderer->playback_finished_timer->timer); }
    uint64_t nearly_due_in() {
        return uv_timer_get_due_in(&renderer->playback_nearly_finished_timer->timer);
    }
};

TEST_F(RendererTest, WithoutASinkThereIsNoRenderer) {
    fake_sink::state().exists = false;
    EXPECT_EQ(audio_renderer_new(&loop, "pcm", "mixer", "element"), nullptr);
}

TEST_F(RendererTest, WhatDoesNotFitIsOfferedAgainWhenThereIsRoom) {
    start(1);
    initiate();
    fake_sink::state().room = 1000;
    journal::take();
    EXPECT_EQ(offer(1, 4000), 1000U);
    EXPECT_EQ(offer(1, 3000), 0U);
    EXPECT_THAT(journal::take(), ElementsAre("sink write 1000")) << "closed by the short count";
    fake_sink::signal_space();
    fake_sink::signal_space();
    EXPECT_THAT(journal::take(), ElementsAre("sdk resume_audio_delivery 1")) << "once";
}

TEST_F(RendererTest, WithoutTheOutputOrTheSdkNothingPlaysAndTheNextInitiationWorks) {
    start(1);
    journal::host_allows_source = false;
    initiate();
    EXPECT_THAT(journal::take(), ElementsAre("host allow_source", "sdk notify_playback_error",
                                             "sdk deactivate_and_disconnect_renderer"));
    journal::host_allows_source = true;
    fake_sdk::set_result("notify_playback_initiated", NUV_ERROR_INTERNAL);
    initiate();
    EXPECT_EQ(journal::take().back(), "sdk notify_playback_error");
    fake_sdk::set_result("notify_playback_initiated", NUV_ERROR_OK);
    initiate();
    EXPECT_EQ(offer(1, 400), 400U);
}

TEST_F(TrackTransition, TheTimersFollowWhatTheSinkHolds) {
    end_first_stream(1000);
    EXPECT_EQ(nearly_due_in(), 500U);
    EXPECT_EQ(end_due_in(), 1000U);
    pause();
    journal::take();
    start(2);
    EXPECT_THAT(journal::take(), IsEmpty()) << "not yet, nor for a pause";
    dispose(2);
    resume();
    EXPECT_EQ(end_due_in(), 1000U);
    announce_seek();
    EXPECT_FALSE(any_timer_armed());
    seeked(1, 0);
    hold_ms(400);
    finish(1);
    EXPECT_EQ(nearly_due_in(), 0U);
    EXPECT_EQ(end_due_in(), 400U);
    announce_seek();
    seeked(1, 0);
    fake_sink::state().buffered_is_known = false;
    finish(1);
    EXPECT_EQ(end_due_in(), 0U);
}

TEST_F(TrackTransition, ADeviceThatPlaysLateIsWaitedForUnlessItStandsStill) {
    end_first_stream(510);
    hold_ms(560);  // at the nearly-finished point
    while (!renderer->is_late) {
        uv_run(&loop, UV_RUN_ONCE);
    }
    hold_ms(30);  // when the finished timer fires
    ASSERT_TRUE(run_until("sink close"));
    EXPECT_EQ(renderer->awaited_rest, 30U) << "looked at again, and then given up";
    EXPECT_THAT(journal::take(),
                ElementsAre("host playback_status 0", "sdk notify_playback_finished true",
                            "sink drain", "sink close"));
}

TEST_F(TrackTransition, ANextTrackThatArrivesInTheIntervalFlowsAtOnce) {
    end_first_stream(400);
    start(2);
    EXPECT_THAT(journal::take(), IsEmpty()) << "the interval has not been reached";
    run_due();
    EXPECT_THAT(journal::take(), ElementsAre("sdk resume_audio_delivery 2"));
    start(3);
    dispose(2);
    EXPECT_THAT(journal::take(), ElementsAre("sdk resume_audio_delivery 3"));
    dispose(3);
    pause();
    journal::take();
    start(4);
    EXPECT_THAT(journal::take(), ElementsAre("sdk resume_audio_delivery 4"));
    EXPECT_EQ(offer(4, 400), 0U) << "refused until the resume";
    resume();
    EXPECT_EQ(offer(4, 400), 400U);
    announce_seek();
    seeked(1, 0);
    EXPECT_EQ(offer(1, 400), 400U) << "the pause had closed it";
}

TEST_F(TrackTransition, ANextTrackShorterThanTheQueueEndsInItsTurn) {
    hand_over();
    hold_ms(2000);
    finish(2);
    EXPECT_LE(end_due_in(), 20U) << "the end of stream 1 comes no later for it";
    hold_ms(20);
    ASSERT_TRUE(run_until("sdk notify_playback_initiated"));
    EXPECT_TRUE(any_timer_armed()) << "stream 2 has been delivered";
    start(3);
    journal::take();
    hold_ms(0);
    dispose(1);
    EXPECT_THAT(journal::take(), ElementsAre("sdk resume_audio_delivery 3"))
        << "stream 2 is in its interval already";
    ASSERT_TRUE(run_until("sdk notify_playback_initiated"));
    EXPECT_THAT(journal::take(), Contains("sdk notify_playback_finished false"));
}

TEST_F(TrackTransition, ATrackThatIsOverBeforeItsForerunnerIsDisposedOfEndsOnce) {
    hand_over();
    finish(2);
    hold_ms(0);
    ASSERT_TRUE(run_until("sdk notify_playback_initiated"));
    journal::take();
    EXPECT_FALSE(run_until("sdk"));
    dispose(1);
    EXPECT_TRUE(run_until("sdk notify_playback_finished true"));
}

TEST_F(TrackTransition, AnEndingTrackThatGoesEarlyDoesNotEndItsSuccessor) {
    end_first_stream(400);
    run_due();
    start(2);
    dispose(1);
    EXPECT_FALSE(any_timer_armed());
    EXPECT_EQ(offer(2, 400), 400U);
}

TEST_F(RendererTest, PositionsGoOnBeyondThirtyTwoBits) {
    uint64_t ms = 4'294'967'000;
    start(1, kCd, ms);
    initiate();
    for (const uint64_t next : std::array<uint64_t, 3>{2'147'483'000, 12'884'901'000, 0}) {
        EXPECT_EQ(offer(1, kCdSecond), kCdSecond);
        fake_sink::state().buffered_frames = 441;
        journal::take();
        EXPECT_EQ(position(), ms + 990);
        EXPECT_THAT(journal::take(), ElementsAre("host position " + std::to_string(ms + 990)));
        announce_seek();
        EXPECT_EQ(position(), ms + 990) << "where the seek began";
        ms = next;
        seeked(1, ms);
    }
}

TEST_F(RendererTest, TheHostHearsOfEachWholeSecondOnce) {
    start(1);
    initiate();
    journal::take();
    const auto reports = [&](size_t bytes) {
        offer(1, bytes);
        auto lines = journal::take();
        lines.erase(lines.begin());  // the write
        return lines;
    };
    // A report comes from inside a delivery, which does not count yet.
    EXPECT_THAT(reports(kCdSecond - 4), IsEmpty());
    EXPECT_THAT(reports(4), IsEmpty()) << "999 ms: below one second at first";
    EXPECT_THAT(reports(kCdSecond / 2), ElementsAre("host position 1000"));
    EXPECT_THAT(reports(kCdSecond), IsEmpty()) << "1500 ms";
    EXPECT_THAT(reports(400), ElementsAre("host position 2500"));
    fake_sink::state().buffered_frames = 22050;
    position();
    position();
    EXPECT_THAT(journal::take(), ElementsAre("host position 2002", "host position 2002"))
        << "the SDK's own queries always report";
    fake_sink::state().buffered_is_known = false;
    EXPECT_THAT(reports(2 * kCdSecond), IsEmpty()) << "not known";
    stop();
    dispose(1);
    start(1);
    initiate();
    journal::take();
    EXPECT_THAT(reports(400), IsEmpty());
    fake_sink::state() = {.open = true};
    EXPECT_THAT(reports(400), ElementsAre("host position 2")) << "a new track reports at once";
}

}  // namespace
