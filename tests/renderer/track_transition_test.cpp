// Position, the timers at the end of a track and the change to the next one.
#include "renderer/renderer_fixture.h"

using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::IsSupersetOf;
using testing::Not;

namespace {

constexpr nuv_audio_format hi_res{96000, 2, NUV_AUDIO_SAMPLE_FORMAT_24_BIT};

class TrackTransition : public RendererTest {
  protected:
    // Stream 1 has been delivered whole and the next one has flowed behind its tail, which the sink
    // still holds for so many ms.
    void hand_over(uint64_t held_ms) {
        play_first_stream();
        start(2);
        hold_ms(held_ms);
        finish(1);
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
class PlaybackPosition : public RendererTest {};

TEST_F(TrackTransition, TheTimersFollowWhatTheSinkHolds) {
    play_first_stream();
    finish(1);
    EXPECT_EQ(due_in(renderer->playback_nearly_finished_timer), 500U);
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

TEST_F(TrackTransition, TheLastTrackIsDrainedAndPlaybackStops) {
    play_first_stream();
    hold_ms(20);
    finish(1);
    ASSERT_TRUE(run_until("sink close"));
    EXPECT_THAT(journal::take(),
                ElementsAre("host playback_status 0", "sdk notify_playback_finished true",
                            "sink drain", "sink close"));
    expect_stopped();
    dispose(1);
    EXPECT_THAT(journal::take(), IsEmpty());
}

TEST_F(TrackTransition, TheNextTrackOfTheSameFormatFlowsBeforeTheEnd) {
    play_first_stream();
    start(2);
    EXPECT_EQ(offer(2, 4), 0U) << "not before the hand-over";
    hold_ms(20);
    finish(1);
    ASSERT_TRUE(run_until("sdk resume_audio_delivery 2"));
    EXPECT_EQ(offer(2, 4000), 4000U);
    EXPECT_THAT(journal::take(), ElementsAre("sdk resume_audio_delivery 2", "sink write 4000"));

    ASSERT_TRUE(run_until("sdk notify_playback_initiated"));
    EXPECT_THAT(journal::take(),
                ElementsAre("host playback_status 0", "sdk notify_playback_finished false",
                            "sdk notify_playback_initiated 44100 2 0"));
    dispose(1);
    hold_ms(0);
    finish(2);
    EXPECT_TRUE(run_until("sink close")) << "its own end comes, too";
    EXPECT_THAT(journal::take(), Contains("sdk notify_playback_finished true"));
}

TEST_F(TrackTransition, ANextTrackThatArrivesInTheIntervalFlowsAtOnce) {
    play_first_stream();
    hold_ms(400);
    finish(1);
    start(2);
    EXPECT_THAT(journal::take(), IsEmpty()) << "the interval has not been reached";
    run_due();
    EXPECT_THAT(journal::take(), ElementsAre("sdk resume_audio_delivery 2"));
    dispose(2);
    start(3);
    EXPECT_THAT(journal::take(), ElementsAre("sdk resume_audio_delivery 3"));
}

TEST_F(TrackTransition, AnotherFormatReopensTheSinkAtTheEnd) {
    for (nuv_audio_format other : {nuv_audio_format{48000, 2, NUV_AUDIO_SAMPLE_FORMAT_16_BIT},
                                   nuv_audio_format{44100, 1, NUV_AUDIO_SAMPLE_FORMAT_16_BIT},
                                   nuv_audio_format{44100, 2, NUV_AUDIO_SAMPLE_FORMAT_24_BIT}}) {
        EXPECT_FALSE(audio_formats_are_same(&cd, &other));
    }
    play_first_stream();
    start(2, hi_res);
    hold_ms(20);
    finish(1);
    ASSERT_TRUE(run_until("sdk notify_playback_initiated"));
    EXPECT_THAT(
        journal::take(),
        ElementsAre("host playback_status 0", "sdk notify_playback_finished false", "sink drain",
                    "sink close", "sink open 96000", "sdk resume_audio_delivery 2",
                    "sdk notify_playback_initiated 96000 2 1"));
    dispose(1);
    EXPECT_EQ(offer(2, 4000), 4000U);

    start(3);
    fake_sink::state().can_open = false;
    finish(2);
    ASSERT_TRUE(run_until("sdk notify_playback_error"));
    expect_stopped();
}

TEST_F(TrackTransition, APauseInTheIntervalKeepsTheHandOver) {
    hand_over(300);
    pause();
    run_due();
    EXPECT_FALSE(any_timer_armed());
    resume();
    EXPECT_TRUE(any_timer_armed());
    EXPECT_THAT(journal::take(), Contains("sdk resume_audio_delivery 2"));
    EXPECT_TRUE(run_until("sdk notify_playback_initiated"));
}

TEST_F(TrackTransition, ANextTrackMayArriveWhilePausedInTheInterval) {
    play_first_stream();
    hold_ms(400);
    finish(1);
    run_due();
    pause();
    journal::take();
    start(2);
    EXPECT_THAT(journal::take(), ElementsAre("sdk resume_audio_delivery 2"));
    EXPECT_EQ(offer(2, 400), 0U) << "refused until the resume";
    resume();
    EXPECT_EQ(offer(2, 400), 400U);
}

TEST_F(TrackTransition, AStreamThatFinishesWhilePausedEndsAfterTheResume) {
    play_first_stream();
    pause();
    finish(1);
    start(2);
    run_due();
    EXPECT_FALSE(any_timer_armed());
    EXPECT_THAT(journal::take(), ElementsAre("sink flush", "sdk notify_playback_paused"));
    resume();
    ASSERT_TRUE(run_until("sdk notify_playback_initiated"));
    EXPECT_THAT(journal::take(), IsSupersetOf({"sdk resume_audio_delivery 2",
                                               "sdk notify_playback_finished false"}));
}

TEST_F(TrackTransition, ASeekInTheIntervalReturnsToTheEndingTrack) {
    hand_over(300);
    announce_seek();
    EXPECT_FALSE(any_timer_armed());
    EXPECT_EQ(offer(2, 400), 0U);
    seeked(1, 1000);
    EXPECT_EQ(offer(1, 400), 400U);
    hold_ms(20);
    finish(1);
    EXPECT_TRUE(run_until("sdk resume_audio_delivery 2"));
}

TEST_F(TrackTransition, ASeekReopensADeliveryThatAPauseHadClosed) {
    play_first_stream();
    hold_ms(400);
    finish(1);
    run_due();
    pause();  // closes stream 1, which has nothing left to deliver
    start(2);
    resume();  // opens stream 2
    journal::take();
    announce_seek();
    seeked(1, 0);
    EXPECT_THAT(journal::take(), Contains("sdk resume_audio_delivery 1"));
    EXPECT_EQ(offer(1, 400), 400U);
}

TEST_F(TrackTransition, AWithdrawnNextTrackGivesWayToTheOneBehindIt) {
    hand_over(300);
    start(3);
    dispose(2);
    EXPECT_THAT(journal::take(), ElementsAre("sdk resume_audio_delivery 3"));
    dispose(3);
    EXPECT_TRUE(run_until("sdk notify_playback_finished true"));
    expect_stopped();
}

TEST_F(TrackTransition, ANextTrackShorterThanTheQueueEndsInItsTurn) {
    hand_over(20);
    finish(2);
    ASSERT_TRUE(run_until("sdk notify_playback_initiated"));
    EXPECT_TRUE(uv_timer_is_active(&renderer->playback_finished_timer->timer));
    start(3);
    journal::take();
    hold_ms(0);
    dispose(1);
    EXPECT_THAT(journal::take(), ElementsAre("sdk resume_audio_delivery 3"))
        << "stream 2 is in its interval already";
    ASSERT_TRUE(run_until("sdk notify_playback_initiated"));
    EXPECT_THAT(journal::take(), Contains("sdk notify_playback_finished false"));
}

TEST_F(TrackTransition, ATrackThatFinishesBeforeItsForerunnerIsDisposedOfEnds) {
    change_track();
    finish(2);
    run_due();
    EXPECT_THAT(journal::take(), IsEmpty());
    dispose(1);
    ASSERT_TRUE(run_until("sdk notify_playback_finished true"));
    expect_stopped();
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
}

TEST_F(TrackTransition, APausedTrackThatFinishedBeforeTheDisposalEndsAfterTheResume) {
    change_track();
    finish(2);
    pause();
    dispose(1);
    run_due();
    EXPECT_FALSE(any_timer_armed());
    resume();
    EXPECT_TRUE(run_until("sdk notify_playback_finished true"));
}

TEST_F(TrackTransition, ASeekRightAfterTheChangeIsForTheNewTrack) {
    change_track();
    announce_seek();
    dispose(1);
    seeked(2, 30000);
    EXPECT_EQ(position(), 30000U);
    EXPECT_EQ(offer(2, 400), 400U);
}

TEST_F(TrackTransition, AnEmptyStreamEndsAlthoughItFinishedBeforeItWasPlayed) {
    start(1);
    finish(1);
    EXPECT_FALSE(any_timer_armed());
    initiate();
    ASSERT_TRUE(run_until("sdk notify_playback_finished true"));
    expect_stopped();
}

TEST_F(TrackTransition, AFailedFinishedNotificationLeavesEverything) {
    play_first_stream();
    start(2, hi_res);
    hold_ms(20);
    finish(1);
    fake_sdk::set_result("notify_playback_finished", NUV_ERROR_INTERNAL);
    ASSERT_TRUE(run_until("sdk notify_playback_finished"));
    run_due();
    EXPECT_THAT(journal::take(),
                ElementsAre("host playback_status 0", "sdk notify_playback_finished false"));
    EXPECT_EQ(state(), AUDIO_RENDERER_STATE_PLAYING);
    dispose(2);
    EXPECT_FALSE(any_timer_armed()) << "no retry";
    EXPECT_THAT(journal::take(), IsEmpty());
}

TEST_F(TrackTransition, AStopRightAfterTheChangeForgetsTheEndedTrack) {
    change_track();
    stop();
    dispose(1);
    initiate();
    finish(2);
    EXPECT_TRUE(run_until("sdk notify_playback_finished true"));
}

TEST_F(TrackTransition, DisposingOfThePlayingTrackStopsWithAnError) {
    play_first_stream();
    start(2);
    dispose(1);
    EXPECT_THAT(journal::take(), ElementsAre("sink close", "sdk notify_playback_error"));
    expect_stopped();
    dispose(2);

    change_track();
    dispose(2);
    EXPECT_THAT(journal::take(), ElementsAre("sink close", "sdk notify_playback_error"));
    expect_stopped();
    dispose(1);
}

TEST_F(TrackTransition, AnEndingTrackThatGoesEarlyDoesNotEndItsSuccessor) {
    hand_over(20);
    dispose(1);
    EXPECT_FALSE(any_timer_armed());
    EXPECT_EQ(offer(2, 400), 400U);
    finish(2);
    EXPECT_TRUE(run_until("sdk notify_playback_finished true"));
}

TEST_F(TrackTransition, AStreamThatFinishesWhileSeekingOrStoppedArmsNothing) {
    play_first_stream();
    announce_seek();
    finish(1);
    EXPECT_FALSE(any_timer_armed());
    stop();
    start(2);
    finish(2);
    EXPECT_FALSE(any_timer_armed());
}

TEST_F(PlaybackPosition, ItIsWhatWasConsumedLessWhatTheSinkHolds) {
    start(1, cd, 90000);
    initiate();
    EXPECT_EQ(offer(1, cd_second), cd_second);
    hold_ms(400);
    EXPECT_EQ(position(), 90600U);
    fake_sink::state().buffered_is_known = false;
    EXPECT_EQ(position(), 91000U);
    fake_sink::state().buffered_is_known = true;
    hold_ms(92000);
    journal::take();
    EXPECT_EQ(position(), 0U);
    EXPECT_THAT(journal::take(), IsEmpty()) << "no valid position, nothing to report";
    stop();
    dispose(1);

    start(2, {192000, 2, NUV_AUDIO_SAMPLE_FORMAT_24_BIT}, 7200000);
    initiate();
    fake_sink::state().buffered_frames = 0;
    EXPECT_EQ(position(), 7200000U) << "beyond 4 GiB of PCM";
    stop();
    dispose(2);

    start(3, {0, 0, NUV_AUDIO_SAMPLE_FORMAT_16_BIT});
    initiate();
    EXPECT_EQ(position(), 0U) << "a format of zeros divides nothing";
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
    EXPECT_THAT(reports(cd_second - 4), IsEmpty());
    EXPECT_THAT(reports(4), IsEmpty()) << "999 ms: below one second at first";
    EXPECT_THAT(reports(cd_second / 2), ElementsAre("host position 1000"));
    EXPECT_THAT(reports(cd_second), IsEmpty()) << "1500 ms";
    EXPECT_THAT(reports(400), ElementsAre("host position 2500"));
    position();
    position();
    EXPECT_THAT(journal::take(), ElementsAre("host position 2502", "host position 2502"))
        << "the SDK's own queries always report";
    offer(1, cd_second);
    journal::take();
    fake_sink::state().buffered_is_known = false;
    EXPECT_THAT(reports(400), IsEmpty()) << "3502 ms, less what nobody knows";
    stop();
    dispose(1);

    start(1);
    initiate();
    fake_sink::state().buffered_is_known = true;
    journal::take();
    EXPECT_THAT(reports(400), ElementsAre("host position 0")) << "a new track reports at once";
}

}  // namespace
