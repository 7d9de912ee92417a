// The card where the other tests' proofs rest on it: what it records and counts, when its
// descriptor is ready, and that it punishes what a driver would punish. What it answers to each
// call that is made to fail is tested with the sink, in faults/.
#include <poll.h>

#include <chrono>
#include <functional>
#include <future>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "simcard/card_fixture.h"

namespace {

using namespace std::chrono_literals;
using simcard::Card;
using simcard::Op;
using simcard::Settings;
using Clock = std::chrono::steady_clock;

struct ClosePcm {
    void operator()(snd_pcm_t* pcm) const { snd_pcm_close(pcm); }
};
using PcmPtr = std::unique_ptr<snd_pcm_t, ClosePcm>;

constexpr unsigned kRate = 48000;
constexpr long kFrame = 4;  // bytes
constexpr snd_pcm_uframes_t kPeriod = 480, kBuffer = 1920;

class SimcardPcm : public CardTest {
  protected:
    // Runs a shell command against the card, its output discarded; true on success.
    bool shell(const std::string& command) const {
        return std::system(
                   (card_->tool_environment() + " " + command + " >/dev/null 2>&1").c_str()) == 0;
    }

    static std::vector<std::uint8_t> noise(std::size_t bytes) {
        std::mt19937 random(static_cast<unsigned>(bytes));
        std::vector<std::uint8_t> data(bytes);
        for (std::uint8_t& byte : data) {
            byte = static_cast<std::uint8_t>(random());
        }
        return data;
    }

    static bool readable(const pollfd& descriptor, int timeout_ms = 0) {
        pollfd copy = descriptor;
        return poll(&copy, 1, timeout_ms) == 1;
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
        if (const int error = snd_pcm_hw_params_any(pcm, params); error < 0) {
            return error;
        }
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
    Card& card = make_card();
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
    Card& card = make_card();
    const PcmPtr pcm = open();
    for (const bool by_command : {false, true}) {
        ASSERT_EQ(write(pcm, 100), 100);
        if (by_command) {
            card.underrun();
        } else {
            card.play(100);
        }
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

TEST_F(SimcardPcm, PlaysInRealTimeTimesTheSpeed) {
    const Settings real_time;
    Card& card = make_card(real_time);
    const PcmPtr pcm = open(0, kRate);
    constexpr long kFifth = kRate / 5;  // of a second
    ASSERT_EQ(write(pcm, kFifth), kFifth);
    auto begin = Clock::now();
    EXPECT_EQ(snd_pcm_drain(pcm.get()), 0);
    EXPECT_GE(Clock::now() - begin, 190ms);

    card.set_speed(0.001);  // 200 s, cut short while the drain sleeps
    ASSERT_EQ(snd_pcm_prepare(pcm.get()), 0);
    ASSERT_EQ(write(pcm, kFifth), kFifth);
    begin = Clock::now();
    const auto later = after(100ms, [&] { card.set_speed(1000); });
    EXPECT_EQ(snd_pcm_drain(pcm.get()), 0);
    EXPECT_LT(Clock::now() - begin, 60s);
}

TEST_F(SimcardPcm, NonBlockingDrainIsRefusedAndLosesTheTailOnClose) {
    make_card(Settings());
    for (const bool drained : {false, true}) {
        PcmPtr pcm = open(SND_PCM_NONBLOCK);
        ASSERT_EQ(write(pcm, kBuffer), static_cast<long>(kBuffer));
        EXPECT_EQ(snd_pcm_drain(pcm.get()), -EAGAIN);
        EXPECT_EQ(snd_pcm_state(pcm.get()), SND_PCM_STATE_DRAINING);
        if (drained) {
            ASSERT_EQ(snd_pcm_nonblock(pcm.get(), 0), 0);
            EXPECT_EQ(snd_pcm_drain(pcm.get()), 0);
        }
        pcm.reset();
        EXPECT_EQ(card_->recordings().back().frames == kBuffer, drained);
    }
}

TEST_F(SimcardPcm, DescriptorStaysReadableUntilItsEventsAreAskedFor) {
    Card& card = make_card();
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

TEST_F(SimcardPcm, ShortWritesTakeTheirPart) {
    Card& card = make_card();
    const PcmPtr pcm = open();
    card.shorten_writes(7, 2, 1);
    EXPECT_EQ(write(pcm, 100), 100);
    EXPECT_EQ(write(pcm, 100), 7);
    EXPECT_EQ(write(pcm, 5), 5);
    EXPECT_EQ(write(pcm, 100), 100);
    EXPECT_EQ(delay(pcm), 212);
}

TEST_F(SimcardPcm, DeviceThatIsGoneIsGoneForTheHandleAndBackForANewOne) {
    Card& card = make_card();
    const PcmPtr pcm = open();
    ASSERT_EQ(write(pcm, kBuffer), static_cast<long>(kBuffer));
    EXPECT_EQ(revents(pcm), 0);
    card.unplug();
    for (int i = 0; i < 3; ++i) {  // error without end
        EXPECT_TRUE(readable(descriptor_, 5000));
        EXPECT_EQ(revents(pcm), POLLOUT | POLLERR);
    }
    EXPECT_EQ(snd_pcm_state(pcm.get()), SND_PCM_STATE_DISCONNECTED);
    for (const long error : {snd_pcm_avail(pcm.get()), delay(pcm), write(pcm, 1),
                             snd_pcm_sframes_t{snd_pcm_prepare(pcm.get())},
                             snd_pcm_sframes_t{snd_pcm_drain(pcm.get())}}) {
        EXPECT_EQ(error, -ENODEV);
    }
    snd_pcm_t* none = nullptr;
    EXPECT_EQ(snd_pcm_open(&none, "simcard", SND_PCM_STREAM_PLAYBACK, 0), -ENODEV);

    card.plug_in();
    EXPECT_EQ(snd_pcm_avail(pcm.get()), -ENODEV);
    const PcmPtr again = open();
    EXPECT_EQ(write(again, 100), 100);
    card.unplug();  // and back before anyone looks
    card.plug_in();
    EXPECT_EQ(write(again, 100), -ENODEV);
}

TEST_F(SimcardPcm, DrainThatFailsStopsTheStreamAndAnInterruptedOneCanBeRepeated) {
    Card& card = make_card();
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

    card.set_speed(0);
    ASSERT_EQ(snd_pcm_prepare(pcm.get()), 0);
    ASSERT_EQ(write(pcm, 100), 100);
    const auto later = after(50ms, [&] { card.unplug(); });
    EXPECT_EQ(snd_pcm_drain(pcm.get()), -ENODEV) << "the end of one that waits";
}

TEST_F(SimcardPcm, CommandLineDrivesTheCard) {
    Card& card = make_card();
    const PcmPtr pcm = open();
    const auto control = [&](const std::string& command, const std::string& rest = "") {
        return shell(SIMCARDCTL " " + command + " " + directory_.path() + " " + rest);
    };
    ASSERT_EQ(write(pcm, 100), 100);
    EXPECT_TRUE(control("play", "40"));
    EXPECT_EQ(delay(pcm), 60);
    EXPECT_TRUE(control("fault", "delay EIO 1 2"));
    for (const long expected : {60, -EIO, -EIO, 60}) {
        EXPECT_EQ(delay(pcm), expected);
    }
    EXPECT_TRUE(control("volume", "40"));
    EXPECT_TRUE(control("volume", "off"));
    EXPECT_EQ(card.volume(), 40);
    EXPECT_FALSE(card.switch_on());
    EXPECT_TRUE(control("show", "| grep -q 'RUNNING, S16_LE 48000 Hz 2 channels, written 100'"));
    EXPECT_TRUE(control("gone"));
    EXPECT_EQ(delay(pcm), -ENODEV);
    EXPECT_TRUE(shell(SIMCARDCTL " --help"));
    for (const char* bad : {"fault", "nonsense", "volume -x"}) {
        EXPECT_FALSE(control(bad, "delay")) << bad;
    }
    EXPECT_FALSE(control("create", "--rates 44100,x"));
}

}  // namespace
