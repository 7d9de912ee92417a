#include <fcntl.h>

#include <array>
#include <chrono>
#include <fstream>
#include <functional>
#include <future>
#include <thread>

#include "tests/simcard/simcard_fixture.h"

namespace {

using namespace std::chrono_literals;
using simcard::Card;
using simcard::Fault;
using simcard::Op;
using simcard::Resume;
using simcard::Settings;
using Clock = std::chrono::steady_clock;

struct ClosePcm {
    void operator()(snd_pcm_t* pcm) const { snd_pcm_close(pcm); }
};
using PcmPtr = std::unique_ptr<snd_pcm_t, ClosePcm>;

constexpr unsigned kRate = 48000;
constexpr long kFrame = 4;  // bytes
constexpr snd_pcm_uframes_t kPeriod = 480, kBuffer = 1920;

class SimcardPcm : public SimcardTest {
  protected:
    // A card whose clock stands still: only play() moves it.
    Card& make_still_card(Settings settings = {}) {
        settings.speed = 0;
        return make_card(settings);
    }

    static PcmPtr open_unconfigured(int mode = 0) {
        snd_pcm_t* pcm = nullptr;
        EXPECT_EQ(snd_pcm_open(&pcm, "simcard", SND_PCM_STREAM_PLAYBACK, mode), 0);
        return PcmPtr(pcm);
    }

    // S16_LE stereo at 48 kHz with four periods of 10 ms, unless given otherwise.
    PcmPtr open(int mode = 0, snd_pcm_uframes_t buffer = kBuffer) {
        PcmPtr pcm = open_unconfigured(mode);
        EXPECT_EQ(configure(pcm.get(), SND_PCM_FORMAT_S16_LE, 2, kRate, buffer), 0);
        EXPECT_EQ(snd_pcm_poll_descriptors(pcm.get(), &descriptor_, 1), 1);
        return pcm;
    }

    // A buffer of 0 frames leaves buffer and period to ALSA.
    static int configure(snd_pcm_t* pcm, snd_pcm_format_t format, unsigned channels, unsigned rate,
                         snd_pcm_uframes_t buffer = 0) {
        snd_pcm_hw_params_t* params = nullptr;
        snd_pcm_hw_params_alloca(&params);
        if (const int error = snd_pcm_hw_params_any(pcm, params); error < 0)
            return error;
        EXPECT_EQ(snd_pcm_hw_params_set_access(pcm, params, SND_PCM_ACCESS_RW_INTERLEAVED), 0);
        EXPECT_EQ(snd_pcm_hw_params_set_format(pcm, params, format), 0);
        EXPECT_EQ(snd_pcm_hw_params_set_channels(pcm, params, channels), 0);
        EXPECT_EQ(snd_pcm_hw_params_set_rate(pcm, params, rate, 0), 0);
        if (buffer > 0) {
            EXPECT_EQ(snd_pcm_hw_params_set_period_size(pcm, params, buffer / 4, 0), 0);
            EXPECT_EQ(snd_pcm_hw_params_set_buffer_size(pcm, params, buffer), 0);
        }
        return snd_pcm_hw_params(pcm, params);
    }

    // Writes zeros.
    static snd_pcm_sframes_t write(const PcmPtr& pcm, snd_pcm_uframes_t frames) {
        const std::vector<std::uint8_t> zeros(frames * kFrame);
        return snd_pcm_writei(pcm.get(), zeros.data(), frames);
    }

    static snd_pcm_sframes_t delay(const PcmPtr& pcm) {
        snd_pcm_sframes_t frames = -1;
        const int error = snd_pcm_delay(pcm.get(), &frames);
        return error < 0 ? error : frames;
    }

    unsigned short revents(const PcmPtr& pcm) {
        unsigned short events = 0xffff;
        pollfd copy = descriptor_;
        copy.revents = POLLIN;
        EXPECT_EQ(snd_pcm_poll_descriptors_revents(pcm.get(), &copy, 1, &events), 0);
        return events;
    }

    // Runs `change` on another thread while this one is inside an ALSA call.
    static std::future<void> after(std::chrono::milliseconds delay, std::function<void()> change) {
        return std::async(std::launch::async, [delay, change = std::move(change)] {
            std::this_thread::sleep_for(delay);
            change();
        });
    }

    pollfd descriptor_ = {};
};

TEST_F(SimcardPcm, ProgramWithoutWishesGetsAQuarterToHalfASecondInEightPeriods) {
    make_card();
    struct Row {
        snd_pcm_format_t format;
        unsigned channels, rate;
    };
    for (const Row& row :
         {Row{SND_PCM_FORMAT_S16_LE, 1, 8000}, Row{SND_PCM_FORMAT_S16_LE, 2, 44100},
          Row{SND_PCM_FORMAT_S24_LE, 2, 96000}, Row{SND_PCM_FORMAT_S24_LE, 2, 192000},
          Row{SND_PCM_FORMAT_S32_LE, 8, 384000}}) {
        SCOPED_TRACE(row.rate);
        const PcmPtr pcm = open_unconfigured();
        ASSERT_EQ(configure(pcm.get(), row.format, row.channels, row.rate), 0);
        snd_pcm_uframes_t buffer = 0, period = 0;
        ASSERT_EQ(snd_pcm_get_params(pcm.get(), &buffer, &period), 0);
        EXPECT_GE(buffer, row.rate / 4);
        EXPECT_LE(buffer, row.rate / 2);
        EXPECT_EQ(buffer / period, 8U);
    }
}

TEST_F(SimcardPcm, HardwareMasksAreTheCardsOwn) {
    Settings settings;
    settings.formats = {SND_PCM_FORMAT_S16_LE};
    settings.rates = {48000, 32000};
    settings.maximum_channels = 2;
    make_card(settings);
    const PcmPtr pcm = open_unconfigured();
    snd_pcm_hw_params_t* params = nullptr;
    snd_pcm_hw_params_alloca(&params);
    ASSERT_GE(snd_pcm_hw_params_any(pcm.get(), params), 0);
    EXPECT_EQ(snd_pcm_hw_params_test_format(pcm.get(), params, SND_PCM_FORMAT_S16_LE), 0);
    EXPECT_NE(snd_pcm_hw_params_test_format(pcm.get(), params, SND_PCM_FORMAT_S24_LE), 0);
    EXPECT_NE(snd_pcm_hw_params_test_channels(pcm.get(), params, 3), 0);
    unsigned rate = 0;
    ASSERT_EQ(snd_pcm_hw_params_get_rate_max(params, &rate, nullptr), 0);
    EXPECT_EQ(rate, 48000U);
    rate = 44100;
    ASSERT_EQ(snd_pcm_hw_params_set_rate_near(pcm.get(), params, &rate, nullptr), 0);
    EXPECT_EQ(rate, 48000U);

    settings.impossible = true;
    make_card(settings);
    const PcmPtr impossible = open_unconfigured();
    EXPECT_EQ(snd_pcm_hw_params_any(impossible.get(), params), -EINVAL);
}

TEST_F(SimcardPcm, RecordsEveryFormatBitExactly) {
    Settings settings;
    settings.speed = 50;
    settings.patient = true;
    make_card(settings);
    struct Row {
        snd_pcm_format_t format;
        unsigned channels, rate;
    };
    for (const Row& row :
         {Row{SND_PCM_FORMAT_S16_LE, 2, 44100}, Row{SND_PCM_FORMAT_S24_LE, 2, 96000},
          Row{SND_PCM_FORMAT_S32_LE, 5, 192000}}) {
        PcmPtr pcm = open_unconfigured();
        ASSERT_EQ(configure(pcm.get(), row.format, row.channels, row.rate), 0);
        const snd_pcm_uframes_t frames = row.rate + 17;  // more than the ring holds, not a multiple
        const auto data = noise(static_cast<std::size_t>(
            snd_pcm_frames_to_bytes(pcm.get(), static_cast<long>(frames))));
        ASSERT_EQ(snd_pcm_writei(pcm.get(), data.data(), frames), static_cast<long>(frames));
        ASSERT_EQ(snd_pcm_drain(pcm.get()), 0);
        pcm.reset();
        const simcard::Recording recording = card_->recordings().back();
        EXPECT_TRUE(recording.closed);
        EXPECT_EQ(recording.format, row.format);
        EXPECT_EQ(recording.rate, row.rate);
        EXPECT_EQ(recording.channels, row.channels);
        EXPECT_EQ(recording.frames, frames);
        EXPECT_TRUE(Card::data(recording) == data);
    }
    EXPECT_EQ(card_->recordings().size(), 3U);
    EXPECT_EQ(card_->counters().underruns, 0U);
}

TEST_F(SimcardPcm, RecordsWhatWasPlayedUpToADropAndNothingElse) {
    Card& card = make_still_card();
    PcmPtr pcm = open();
    const auto data = noise(1000 * kFrame);
    ASSERT_EQ(snd_pcm_writei(pcm.get(), data.data(), 1000), 1000);
    card.play(300);
    EXPECT_EQ(delay(pcm), 700);
    EXPECT_EQ(snd_pcm_avail(pcm.get()), static_cast<long>(kBuffer) - 700);
    ASSERT_EQ(snd_pcm_drop(pcm.get()), 0);
    EXPECT_EQ(snd_pcm_state(pcm.get()), SND_PCM_STATE_SETUP);
    ASSERT_EQ(snd_pcm_prepare(pcm.get()), 0);
    ASSERT_EQ(snd_pcm_writei(pcm.get(), data.data(), 500), 500);
    card.play(200);
    pcm.reset();

    const simcard::Recording recording = card.recordings().back();
    EXPECT_EQ(recording.frames, 500U);
    EXPECT_EQ(recording.frames_dropped, 700U + 300U);
    EXPECT_EQ(recording.drops, 2U);
    std::vector<std::uint8_t> expected(data.begin(), data.begin() + 300 * kFrame);
    expected.insert(expected.end(), data.begin(), data.begin() + 200 * kFrame);
    EXPECT_EQ(Card::data(recording), expected);
}

TEST_F(SimcardPcm, UnderrunStopsTheStreamUntilItIsPreparedAgain) {
    Card& card = make_still_card();
    const PcmPtr pcm = open();
    for (const bool by_command : {false, true}) {
        ASSERT_EQ(write(pcm, 100), 100);
        if (by_command)
            card.underrun();
        else
            card.play(100);
        EXPECT_EQ(snd_pcm_avail(pcm.get()), -EPIPE);
        EXPECT_EQ(snd_pcm_state(pcm.get()), SND_PCM_STATE_XRUN);
        EXPECT_EQ(delay(pcm), -EPIPE);
        EXPECT_EQ(write(pcm, 1), -EPIPE);
        EXPECT_EQ(revents(pcm), POLLOUT | POLLERR);
        ASSERT_EQ(snd_pcm_recover(pcm.get(), -EPIPE, 1), 0);
    }
    EXPECT_EQ(card.counters().underruns, 2U);
    EXPECT_EQ(card.counters().frames_played, 100U);
    EXPECT_EQ(card.counters().frames_dropped, 100U);
}

TEST_F(SimcardPcm, StreamWithoutStopThresholdWaitsForData) {
    Card& card = make_still_card();
    const PcmPtr pcm = open();
    snd_pcm_sw_params_t* params = nullptr;
    snd_pcm_sw_params_alloca(&params);
    ASSERT_EQ(snd_pcm_sw_params_current(pcm.get(), params), 0);
    snd_pcm_uframes_t boundary = 0;
    ASSERT_EQ(snd_pcm_sw_params_get_boundary(params, &boundary), 0);
    ASSERT_EQ(snd_pcm_sw_params_set_stop_threshold(pcm.get(), params, boundary), 0);
    ASSERT_EQ(snd_pcm_sw_params(pcm.get(), params), 0);
    ASSERT_EQ(write(pcm, 100), 100);
    card.play(5000);
    EXPECT_EQ(snd_pcm_avail(pcm.get()), static_cast<long>(kBuffer));
    ASSERT_EQ(write(pcm, 100), 100);
    EXPECT_EQ(delay(pcm), 100);
}

TEST_F(SimcardPcm, PlaysInRealTimeTimesTheSpeed) {
    Card& card = make_card();
    PcmPtr pcm = open(0, kRate);
    const auto timed_drain = [&] {
        EXPECT_EQ(write(pcm, kRate / 5), static_cast<long>(kRate / 5));  // 200 ms
        const auto begin = Clock::now();
        EXPECT_EQ(snd_pcm_drain(pcm.get()), 0);
        EXPECT_EQ(snd_pcm_prepare(pcm.get()), 0);
        return Clock::now() - begin;
    };
    EXPECT_GE(timed_drain(), 190ms);
    card.set_speed(0.5);
    EXPECT_GE(timed_drain(), 390ms);
    card.set_speed(0.001);  // 200 s, cut short while the drain sleeps
    ASSERT_EQ(write(pcm, kRate / 5), static_cast<long>(kRate / 5));
    const auto begin = Clock::now();
    const auto later = after(100ms, [&] { card.set_speed(1000); });
    EXPECT_EQ(snd_pcm_drain(pcm.get()), 0);
    EXPECT_LT(Clock::now() - begin, 60s);
}

TEST_F(SimcardPcm, PauseHoldsTheQueueAndTheDescriptor) {
    Card& card = make_still_card();
    const PcmPtr pcm = open();
    EXPECT_EQ(snd_pcm_pause(pcm.get(), 1), -EBADFD);
    ASSERT_EQ(write(pcm, kBuffer), static_cast<long>(kBuffer));
    card.play(100);
    ASSERT_EQ(snd_pcm_pause(pcm.get(), 1), 0);
    EXPECT_EQ(snd_pcm_state(pcm.get()), SND_PCM_STATE_PAUSED);
    card.set_speed(1);
    EXPECT_EQ(revents(pcm), 0);
    EXPECT_FALSE(readable(descriptor_, 50));
    EXPECT_EQ(delay(pcm), static_cast<long>(kBuffer) - 100);
    ASSERT_EQ(snd_pcm_pause(pcm.get(), 0), 0);
    EXPECT_TRUE(readable(descriptor_, 5000));
}

TEST_F(SimcardPcm, NonBlockingDrainIsRefusedAndLosesTheTailOnClose) {
    make_card();
    // The flag counts, whoever set it.
    const std::array<std::function<PcmPtr()>, 3> ways = {
        [&] { return open(SND_PCM_NONBLOCK); },
        [&] {
            PcmPtr pcm = open();
            EXPECT_EQ(snd_pcm_nonblock(pcm.get(), 1), 0);
            return pcm;
        },
        [&] {
            PcmPtr pcm = open();
            EXPECT_EQ(fcntl(descriptor_.fd, F_SETFL, O_NONBLOCK), 0);
            return pcm;
        },
    };
    for (const auto& way : ways) {
        PcmPtr pcm = way();
        ASSERT_EQ(write(pcm, kBuffer), static_cast<long>(kBuffer));
        EXPECT_EQ(snd_pcm_drain(pcm.get()), -EAGAIN);
        EXPECT_EQ(snd_pcm_state(pcm.get()), SND_PCM_STATE_DRAINING);
        pcm.reset();
        EXPECT_LT(card_->recordings().back().frames, kBuffer);

        pcm = way();
        ASSERT_EQ(write(pcm, kBuffer), static_cast<long>(kBuffer));
        ASSERT_EQ(snd_pcm_nonblock(pcm.get(), 0), 0);
        EXPECT_EQ(snd_pcm_drain(pcm.get()), 0);
        EXPECT_EQ(snd_pcm_state(pcm.get()), SND_PCM_STATE_SETUP);
        pcm.reset();
        EXPECT_EQ(card_->recordings().back().frames, kBuffer);
    }
}

TEST_F(SimcardPcm, DescriptorStaysReadableUntilItsEventsAreAskedFor) {
    Card& card = make_still_card();
    const PcmPtr pcm = open();
    EXPECT_TRUE(readable(descriptor_));
    ASSERT_EQ(write(pcm, kBuffer), static_cast<long>(kBuffer));
    EXPECT_TRUE(readable(descriptor_));  // full, but nobody has asked
    EXPECT_EQ(revents(pcm), 0);
    EXPECT_FALSE(readable(descriptor_));

    card.play(kPeriod - 1);  // less than avail_min
    EXPECT_TRUE(readable(descriptor_, 5000));
    EXPECT_EQ(revents(pcm), 0);
    EXPECT_FALSE(readable(descriptor_));
    card.play(1);
    EXPECT_TRUE(readable(descriptor_, 5000));
    EXPECT_EQ(revents(pcm), POLLOUT);
    EXPECT_TRUE(readable(descriptor_));  // room as before
}

TEST_F(SimcardPcm, WakesOnceAPeriodAndNeverWhenIdle) {
    Card& card = make_card();
    const PcmPtr pcm = open(0, 4 * kRate / 10);  // four periods of 100 ms
    ASSERT_EQ(write(pcm, 4 * kRate / 10), static_cast<long>(4 * kRate / 10));
    EXPECT_EQ(revents(pcm), 0);
    const auto begin = Clock::now();
    ASSERT_TRUE(readable(descriptor_, 5000));
    EXPECT_GE(Clock::now() - begin, 90ms);
    EXPECT_EQ(revents(pcm), POLLOUT);
    card.reset_counters();
    for (int i = 0; i < 4; ++i)
        ASSERT_EQ(write(pcm, kRate / 10),
                  static_cast<long>(kRate / 10));  // waits for room each time
    // Each wait asks once too early at most, when the descriptor still tells of old room.
    EXPECT_LE(card.counters()[Op::poll_revents], 2 * 4U);

    ASSERT_EQ(snd_pcm_pause(pcm.get(), 1), 0);
    while (revents(pcm) != 0)
        write(pcm, 100);
    EXPECT_FALSE(readable(descriptor_, 300));
}

TEST_F(SimcardPcm, EachOperationFailsOnDemandAndGoesOnAfterwards) {
    Card& card = make_still_card();
    struct Row {
        Op op;
        int error;
        bool running;
        std::function<long(const PcmPtr&)> call;  // 0 or a negative errno
    };
    const auto write_100 = [](const PcmPtr& pcm) {
        const long written = write(pcm, 100);
        return written == 100 ? 0 : written;
    };
    const auto avail = [](const PcmPtr& pcm) {
        return std::min(0L, static_cast<long>(snd_pcm_avail(pcm.get())));
    };
    const Row rows[] = {
        {Op::hw_params, EIO, false,
         [](const PcmPtr& pcm) -> long {
             return configure(pcm.get(), SND_PCM_FORMAT_S16_LE, 2, kRate, kBuffer);
         }},
        {Op::prepare, EIO, false,
         [](const PcmPtr& pcm) -> long { return snd_pcm_prepare(pcm.get()); }},
        {Op::start, EBUSY, false,
         [](const PcmPtr& pcm) -> long { return snd_pcm_start(pcm.get()); }},
        {Op::write, EINTR, false, write_100},
        {Op::write, EIO, true, write_100},
        {Op::pointer, EIO, false, avail},
        {Op::pointer, ENODEV, true, avail},
        {Op::pointer, EAGAIN, true, write_100},
        {Op::delay, EIO, true,
         [](const PcmPtr& pcm) { return std::min(0L, static_cast<long>(delay(pcm))); }},
        {Op::pause, EIO, true,
         [](const PcmPtr& pcm) -> long { return snd_pcm_pause(pcm.get(), 1); }},
        {Op::drain, EINTR, false,
         [](const PcmPtr& pcm) -> long { return snd_pcm_drain(pcm.get()); }},
        {Op::poll_descriptor_count, EIO, true,
         [](const PcmPtr& pcm) -> long {
             return std::min(0, snd_pcm_poll_descriptors_count(pcm.get()));
         }},
        {Op::poll_descriptors, EIO, true,
         [](const PcmPtr& pcm) -> long {
             pollfd descriptor = {};
             return std::min(0, snd_pcm_poll_descriptors(pcm.get(), &descriptor, 1));
         }},
        {Op::poll_revents, EIO, true,
         [](const PcmPtr& pcm) -> long {
             pollfd descriptor = {};
             unsigned short events = 0;
             return snd_pcm_poll_descriptors_revents(pcm.get(), &descriptor, 1, &events);
         }},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(testing::Message() << simcard::op_name(row.op) << " " << row.error);
        const PcmPtr pcm = open();
        if (row.running) {
            ASSERT_EQ(write(pcm, 200), 200);
            card.play(50);
        }
        card.inject({.op = row.op, .error = row.error});
        EXPECT_EQ(row.call(pcm), -row.error);
        EXPECT_EQ(row.call(pcm), 0);
        if (row.running) {
            EXPECT_GE(delay(pcm), 150);  // nothing was lost
        }
    }

    card.inject({.op = Op::open, .error = EBUSY});
    snd_pcm_t* busy = nullptr;
    EXPECT_EQ(snd_pcm_open(&busy, "simcard", SND_PCM_STREAM_PLAYBACK, 0), -EBUSY);
    const PcmPtr pcm = open();
    card.inject({.op = Op::delay, .error = EIO, .after = 2, .times = 3});
    for (const long expected : {0, 0, -EIO, -EIO, -EIO, 0})
        EXPECT_EQ(delay(pcm), expected);
}

TEST_F(SimcardPcm, InjectedUnderrunAndSuspendAlsoChangeTheState) {
    Card& card = make_still_card();
    const PcmPtr pcm = open();
    ASSERT_EQ(write(pcm, 100), 100);
    card.inject({.op = Op::write, .error = EPIPE});
    EXPECT_EQ(write(pcm, 100), -EPIPE);
    EXPECT_EQ(snd_pcm_state(pcm.get()), SND_PCM_STATE_XRUN);
    ASSERT_EQ(snd_pcm_recover(pcm.get(), -EPIPE, 1), 0);
    ASSERT_EQ(write(pcm, 100), 100);
    card.inject({.op = Op::pointer, .error = ESTRPIPE});
    EXPECT_EQ(snd_pcm_avail(pcm.get()), -ESTRPIPE);
    EXPECT_EQ(snd_pcm_state(pcm.get()), SND_PCM_STATE_SUSPENDED);
    ASSERT_EQ(snd_pcm_recover(pcm.get(), -ESTRPIPE, 1), 0);
    EXPECT_EQ(delay(pcm), 100);
}

TEST_F(SimcardPcm, ShortWritesTakeTheirPart) {
    Card& card = make_still_card();
    const PcmPtr pcm = open();
    card.shorten_writes(7, 2, 1);
    EXPECT_EQ(write(pcm, 100), 100);
    EXPECT_EQ(write(pcm, 100), 7);
    EXPECT_EQ(write(pcm, 5), 5);
    EXPECT_EQ(write(pcm, 100), 100);
    EXPECT_EQ(delay(pcm), 212);
}

TEST_F(SimcardPcm, SuspendedStreamGoesOnStartsAnewOrStaysStuck) {
    Card& card = make_still_card();
    const auto data = noise(600 * kFrame);
    PcmPtr pcm = open();
    for (const Resume resume : {Resume::works, Resume::unsupported}) {
        ASSERT_EQ(snd_pcm_writei(pcm.get(), data.data(), 300), 300);
        card.play(100);
        card.suspend(resume);
        EXPECT_EQ(snd_pcm_avail(pcm.get()), -ESTRPIPE);
        EXPECT_EQ(snd_pcm_state(pcm.get()), SND_PCM_STATE_SUSPENDED);
        EXPECT_EQ(delay(pcm), -ESTRPIPE);
        EXPECT_EQ(write(pcm, 1), -ESTRPIPE);
        ASSERT_EQ(snd_pcm_recover(pcm.get(), -ESTRPIPE, 1), 0);
        EXPECT_EQ(snd_pcm_state(pcm.get()),
                  resume == Resume::works ? SND_PCM_STATE_RUNNING : SND_PCM_STATE_PREPARED);
        EXPECT_EQ(snd_pcm_avail(pcm.get()), static_cast<long>(kBuffer) - delay(pcm));
    }
    EXPECT_EQ(delay(pcm), 0);
    ASSERT_EQ(snd_pcm_writei(pcm.get(), data.data(), 300), 300);  // the pointers still agree
    EXPECT_EQ(delay(pcm), 300);
    EXPECT_EQ(snd_pcm_avail(pcm.get()), static_cast<long>(kBuffer) - 300);

    card.suspend(Resume::stuck);
    EXPECT_EQ(snd_pcm_avail(pcm.get()), -ESTRPIPE);
    snd_pcm_recover(pcm.get(), -ESTRPIPE, 1);
    EXPECT_EQ(snd_pcm_state(pcm.get()), SND_PCM_STATE_SUSPENDED);
    EXPECT_EQ(snd_pcm_prepare(pcm.get()), -ESTRPIPE);
}

TEST_F(SimcardPcm, DeviceThatIsGoneIsGoneForTheHandleAndBackForANewOne) {
    Card& card = make_still_card();
    const PcmPtr pcm = open();
    ASSERT_EQ(write(pcm, kBuffer), static_cast<long>(kBuffer));
    EXPECT_EQ(revents(pcm), 0);
    card.unplug();
    for (int i = 0; i < 3; ++i) {  // error without end
        EXPECT_TRUE(readable(descriptor_, 5000));
        EXPECT_EQ(revents(pcm), POLLOUT | POLLERR);
    }
    EXPECT_EQ(snd_pcm_state(pcm.get()), SND_PCM_STATE_DISCONNECTED);
    EXPECT_EQ(snd_pcm_avail(pcm.get()), -ENODEV);
    EXPECT_EQ(delay(pcm), -ENODEV);
    EXPECT_EQ(write(pcm, 1), -ENODEV);
    EXPECT_EQ(snd_pcm_drop(pcm.get()), -ENODEV);
    EXPECT_EQ(snd_pcm_prepare(pcm.get()), -ENODEV);
    EXPECT_EQ(snd_pcm_drain(pcm.get()), -ENODEV);
    snd_pcm_t* none = nullptr;
    EXPECT_EQ(snd_pcm_open(&none, "simcard", SND_PCM_STREAM_PLAYBACK, 0), -ENODEV);

    card.plug_in();
    EXPECT_EQ(snd_pcm_avail(pcm.get()), -ENODEV);
    const PcmPtr again = open();
    EXPECT_EQ(write(again, 100), 100);
}

TEST_F(SimcardPcm, DrainThatFailsStopsTheStreamAndAnInterruptedOneCanBeRepeated) {
    Card& card = make_still_card();
    const PcmPtr pcm = open();
    ASSERT_EQ(write(pcm, 100), 100);
    card.inject({.op = Op::drain, .error = EIO});
    EXPECT_EQ(snd_pcm_drain(pcm.get()), -EIO);
    EXPECT_EQ(snd_pcm_state(pcm.get()), SND_PCM_STATE_SETUP);
    ASSERT_EQ(snd_pcm_prepare(pcm.get()), 0);

    ASSERT_EQ(write(pcm, 100), 100);
    card.inject({.op = Op::drain, .error = EINTR});
    EXPECT_EQ(snd_pcm_drain(pcm.get()), -EINTR);
    card.set_speed(1);
    EXPECT_EQ(snd_pcm_drain(pcm.get()), 0);
    EXPECT_EQ(card.counters().frames_played, 100U);
}

TEST_F(SimcardPcm, DrainEndsWithAnErrorWhenTheDeviceGoes) {
    Card& card = make_still_card();
    const PcmPtr pcm = open();
    ASSERT_EQ(write(pcm, 100), 100);
    const auto later = after(50ms, [&] { card.unplug(); });
    EXPECT_EQ(snd_pcm_drain(pcm.get()), -ENODEV);
}

TEST_F(SimcardPcm, ExclusiveCardHasOneHandleAtATime) {
    Settings settings;
    settings.exclusive = true;
    make_card(settings);
    PcmPtr pcm = open();
    snd_pcm_t* second = nullptr;
    EXPECT_EQ(snd_pcm_open(&second, "simcard", SND_PCM_STREAM_PLAYBACK, 0), -EBUSY);
    pcm.reset();
    pcm = open();
}

// 24 hours at 192 kHz: 64 bits of frames, whatever the width of alsa-lib's pointers.
TEST_F(SimcardPcm, CountsADayOfFrames) {
    Settings settings;
    settings.record = false;
    Card& card = make_still_card(settings);
    constexpr std::uint64_t day = 24ULL * 3600 * 192000;
    constexpr snd_pcm_uframes_t chunk = 4'800'000, buffer = 4 * chunk;
    const PcmPtr pcm = open_unconfigured();
    ASSERT_EQ(configure(pcm.get(), SND_PCM_FORMAT_S16_LE, 1, 192000, buffer), 0);
    const std::vector<std::uint8_t> data(chunk * 2);
    for (std::uint64_t written = 0; written < day; written += chunk) {
        ASSERT_EQ(snd_pcm_writei(pcm.get(), data.data(), chunk), static_cast<long>(chunk));
        if (written > 0)
            card.play(chunk);
        ASSERT_EQ(delay(pcm), static_cast<long>(chunk));
        ASSERT_EQ(snd_pcm_avail(pcm.get()), static_cast<long>(buffer - chunk));
    }
    EXPECT_EQ(card.stream().written, day);
    EXPECT_EQ(card.stream().played, day - chunk);
    EXPECT_TRUE(card.recordings().empty());
}

TEST_F(SimcardPcm, ServesAplay) {
    Settings settings;
    settings.speed = 20;
    settings.patient = true;
    Card& card = make_card(settings);
    const auto data = noise(44100 * 4 + 4);
    const std::string file = (directory_ / "noise.raw").string();
    std::ofstream(file, std::ios::binary)
        .write(reinterpret_cast<const char*>(data.data()), static_cast<long>(data.size()));
    ASSERT_TRUE(shell("aplay -t raw -f S16_LE -c 2 -r 44100 " + file));
    const simcard::Recording recording = card.wait_closed();
    std::vector<std::uint8_t> played = Card::data(recording);
    ASSERT_GE(played.size(), data.size());  // aplay fills the last period with silence
    played.resize(data.size());
    EXPECT_EQ(played, data);

    card.unplug();
    EXPECT_FALSE(shell("aplay -t raw -f S16_LE -c 2 -r 44100 " + file));
}

TEST_F(SimcardPcm, CommandLineDrivesTheCard) {
    Card& card = make_still_card();
    const PcmPtr pcm = open();
    const auto control = [&](const std::string& command, const std::string& rest = "") {
        return shell(SIMCARDCTL " " + command + " " + directory_.string() + " " + rest);
    };
    ASSERT_EQ(write(pcm, 100), 100);
    EXPECT_TRUE(control("play", "40"));
    EXPECT_EQ(delay(pcm), 60);
    EXPECT_TRUE(control("fault", "delay EIO 1 2"));
    for (const long expected : {60, -EIO, -EIO, 60})
        EXPECT_EQ(delay(pcm), expected);
    EXPECT_TRUE(control("volume", "40"));
    EXPECT_TRUE(control("volume", "off"));
    EXPECT_EQ(card.volume(), 40);
    EXPECT_FALSE(card.switch_on());
    EXPECT_TRUE(control("show", "| grep -q 'RUNNING, S16_LE 48000 Hz 2 channels, written 100'"));
    EXPECT_TRUE(control("gone"));
    EXPECT_EQ(delay(pcm), -ENODEV);
    EXPECT_TRUE(shell(SIMCARDCTL " --help"));
    for (const char* bad : {"fault", "nonsense", "volume -x"})
        EXPECT_FALSE(control(bad, "delay")) << bad;
    EXPECT_TRUE(control("create", "--formats S16_LE --rates 44100 --channels 2-2 --no-switch"));
    EXPECT_FALSE(control("create", "--rates 44100,x"));
}

}  // namespace
