// Position, the timers at the end of a track and the change to the next one.
#include "renderer/renderer_fixture.h"

using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

class TrackTransition : public RendererTest {
  protected:
    // Stream 1 has been delivered whole; the sink still holds so many ms of it.
    void end_first_stream(uint64_t held_ms) {
        play_first_stream();
        hold_ms(held_ms);
        finish(1);
    }
    // And stream 2 flows behind its tail.
    void hand_over(uint64_t held_ms) {
        end_first_stream(held_ms);
        start(2);
        ASSERT_TRUE(run_until("sdk resume_audio_delivery 2"));
        journal::take();
    }
    // And stream 1 has ended; the SDK has not disposed of it.
    void change_track() {
        hand_over(20);
        ASSERT_TRUE(run_until("sdk notify_playback_initiated"));
        journal::take();
    }
    uint64_t due_in(const pausable_timer_ptr& timer) { return uv_timer_get_due_in(&timer->timer); }
};
using PlaybackPosition = RendererTest;

TEST_F(TrackTransition, TheTimersFollowWhatTheSinkHolds) {
    play_first_stream();
    finish(1);
    EXPECT_EQ(due_in(renderer->playback_nearly_finished_timer), 500U);
    EXPECT_EQ(due_in(renderer->playback_finished_timer), 1000U);
    pause();
    journal::take();
    start(2);
    EXPECT_THAT(journal::take(), IsEmpty()) << "not yet, nor for a pause";
    dispose(2);
    resume();
    EXPECT_EQ(due_in(renderer->playback_finished_timer), 1000U);
    announce_seek();
    EXPECT_FALSE(any_timer_armed());
    seeked(1, 0);
    hold_ms(400);
    finish(1);
    EXPECT_EQ(due_in(renderer->playback_nearly_finished_timer), 0U);
    EXPECT_EQ(due_in(renderer->playback_finished_timer), 400U);
    announce_seek();
    seeked(1, 0);
    fake_sink::state().buffered_is_known = false;
    finish(1);
    EXPECT_EQ(due_in(renderer->playback_finished_timer), 0U);
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
    expect_stopped();
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
}

TEST_F(TrackTransition, ASeekReopensADeliveryThatAPauseHadClosed) {
    end_first_stream(400);
    run_due();
    pause();  // closes stream 1, which has nothing left to deliver
    start(2);
    resume();  // opens stream 2
    announce_seek();
    seeked(1, 0);
    EXPECT_EQ(offer(1, 400), 400U);
}

TEST_F(TrackTransition, ANextTrackShorterThanTheQueueEndsInItsTurn) {
    hand_over(20);
    hold_ms(60000);
    finish(2);  // the end of stream 1 comes no later for it
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
    hand_over(20);
    finish(2);
    hold_ms(0);
    ASSERT_TRUE(run_until("sdk notify_playback_initiated"));
    run_due();
    EXPECT_FALSE(any_timer_armed()) << "its end has passed";
    journal::take();
    dispose(1);
    ASSERT_TRUE(run_until("sink close"));
    EXPECT_THAT(journal::take(),
                ElementsAre("host playback_status 0", "sdk notify_playback_finished true",
                            "sink drain", "sink close"));
    expect_stopped();
}

TEST_F(TrackTransition, AnEndingTrackThatGoesEarlyDoesNotEndItsSuccessor) {
    hand_over(20);
    dispose(1);
    EXPECT_FALSE(any_timer_armed());
    EXPECT_EQ(offer(2, 400), 400U);
    finish(2);
    EXPECT_TRUE(run_until("sdk notify_playback_finished true"));
}

TEST_F(PlaybackPosition, TheHostHearsOfEachWholeSecondOnce) {
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
    position();
    position();
    EXPECT_THAT(journal::take(), ElementsAre("host position 2502", "host position 2502"))
        << "the SDK's own queries always report";
    fake_sink::state().buffered_is_known = false;
    EXPECT_THAT(reports(2 * kCdSecond), IsEmpty()) << "not known";
    stop();
    dispose(1);
    start(1);
    initiate();
    journal::take();
    EXPECT_THAT(reports(400), IsEmpty());
    fake_sink::state().buffered_is_known = true;
    EXPECT_THAT(reports(400), ElementsAre("host position 2")) << "a new track reports at once";
}

}  // namespace
