#include "media/sink/alsa/alsa_audio_sink.h"

#include <gmock/gmock.h>

#include <cstring>
#include <map>
#include <memory>
#include <numeric>
#include <string>
#include <vector>

#include "card_fixture.h"
#include "platform/Environment.h"

using namespace std::chrono_literals;
using simcard::Fault;
using simcard::Op;

namespace {

// The platform's configuration items.
std::map<std::string, std::string, std::less<>> g_items;

}  // namespace

void GetEnvItemByName(const char* key, char* value) {
    const auto item = g_items.find(key);
    std::strncpy(value, item == g_items.end() ? "" : item->second.c_str(), kEnvItemBufferSize - 1);
    value[kEnvItemBufferSize - 1] = '\0';
}

namespace {

constexpr nuv_audio_format kCd = {44100, 2, NUV_AUDIO_SAMPLE_FORMAT_16_BIT};
constexpr nuv_audio_format kHiRes = {96000, 2, NUV_AUDIO_SAMPLE_FORMAT_24_BIT};
constexpr size_t kFrame = 4;  // bytes of a CD frame

class AudioSinkTest : public CardTest {
  protected:
    AudioSinkTest() { g_items.clear(); }
    ~AudioSinkTest() override { free_sink(); }

    void free_sink() {
        if (sink_ != nullptr) {
            audio_sink_free(std::exchange(sink_, nullptr));
        }
    }
    audio_sink* new_sink(const char* device = "simcard") {
        free_sink();
        sink_ = audio_sink_new(&loop_, device, "simcard", "Master");
        if (sink_ != nullptr) {
            audio_sink_set_event_listener(
                sink_, this,
                [](audio_sink*, void* test) { ++static_cast<AudioSinkTest*>(test)->signals_; },
                [](audio_sink*, uint32_t volume, void* test) {
                    static_cast<AudioSinkTest*>(test)->volume_ = volume;
                },
                [](audio_sink*, bool muted, void* test) {
                    static_cast<AudioSinkTest*>(test)->muted_ = muted;
                });
        }
        return sink_;
    }
    void open(const nuv_audio_format& format = kCd) {
        free_sink();
        make_card();
        ASSERT_NE(new_sink(), nullptr);
        ASSERT_TRUE(audio_sink_open(sink_, &format));
    }
    // A write of a ramp that goes on where the last one ended; the frames accepted, or -1.
    long write(long frames, size_t extra_bytes = 0) {
        std::vector<uint8_t> data((static_cast<size_t>(frames) * kFrame) + extra_bytes);
        std::iota(data.begin(), data.end(), static_cast<uint8_t>(written_.size()));
        bool ok = false;
        const size_t taken = audio_sink_write(sink_, data.data(), data.size(), &ok);
        EXPECT_EQ(taken % kFrame, 0U);
        EXPECT_TRUE(ok || taken == 0);
        written_.insert(written_.end(), data.begin(),
                        data.begin() + static_cast<std::ptrdiff_t>(taken));
        return ok ? static_cast<long>(taken / kFrame) : -1;
    }
    // Leaves the sink waiting for room, its wake-ups so far done.
    void fill() {
        ASSERT_EQ(write(buffer() + 1), buffer());
        run_for(20ms);
        ASSERT_EQ(signals_, 0);
    }
    // Frames of the card's buffer and of one of its periods.
    long buffer() const { return static_cast<long>(card_->stream().buffer_frames); }
    long period() const { return static_cast<long>(card_->stream().period_frames); }
    snd_pcm_state_t state() const { return card_->stream().state; }

    audio_sink* sink_ = nullptr;
    std::vector<uint8_t> written_;
    int signals_ = 0;
    uint32_t volume_ = 0;
    bool muted_ = false;
};

TEST_F(AudioSinkTest, OfferLargerThanRoomIsTakenInPartAndRoomIsSignalledOnce) {
    open();
    EXPECT_EQ(write(buffer() - 1000), buffer() - 1000);
    run_for(20ms);
    EXPECT_EQ(calls(Op::poll_revents), 0U) << "all was placed: nothing to wait for";
    EXPECT_EQ(write(1500, 3), 1000);
    EXPECT_EQ(write(500), 0) << "full is no failure";

    const uint64_t queries = calls(Op::pointer);  // each wake-up asks for the room
    run_for(100ms);
    EXPECT_EQ(signals_, 0);
    EXPECT_LE(calls(Op::pointer), queries + 8) << "waiting for room must not spin";
    card_->play(period());
    ASSERT_TRUE(run_until([&] { return signals_ == 1; }));
    run_for(50ms);
    EXPECT_EQ(signals_, 1);
    EXPECT_LE(calls(Op::poll_revents), 4U);
    EXPECT_EQ(write(buffer()), period());

    bool ok = false;
    EXPECT_EQ(audio_sink_get_buffered_frame_count(sink_, &ok), buffer());
    EXPECT_TRUE(ok);
}

TEST_F(AudioSinkTest, WhatIsWrittenIsPlayedBitForBitUpToTheDrain) {
    for (const nuv_audio_format& format : {kCd, kHiRes}) {
        open(format);
        written_.clear();
        // Polling has made the descriptors non-blocking before the drain begins.
        signals_ = 0;
        EXPECT_GT(write(1000000), 0);
        card_->set_speed(10);
        ASSERT_TRUE(run_until([&] { return signals_ == 1; }));
        EXPECT_GT(write(999), 0);
        EXPECT_TRUE(audio_sink_drain(sink_));
        audio_sink_close(sink_);
        const simcard::Recording recording = card_->wait_closed();
        EXPECT_EQ(recording.rate, format.sample_rate);
        EXPECT_EQ(recording.format, format.sample_format == NUV_AUDIO_SAMPLE_FORMAT_16_BIT
                                        ? SND_PCM_FORMAT_S16_LE
                                        : SND_PCM_FORMAT_S24_LE);
        EXPECT_EQ(recording.underruns, 0U);
        EXPECT_TRUE(simcard::Card::data(recording) == written_);
    }
}

TEST_F(AudioSinkTest, UnderrunIsRepairedByTheNextWrite) {
    open();
    EXPECT_EQ(write(500), 500);
    card_->underrun();
    EXPECT_EQ(write(1000), 1000);
    bool ok = false;
    EXPECT_EQ(audio_sink_get_buffered_frame_count(sink_, &ok), 1000U);
    EXPECT_TRUE(ok);

    // While it waits for room the repair makes room.
    ASSERT_EQ(write(buffer()), buffer() - 1000);
    run_for(20ms);
    card_->underrun();
    EXPECT_TRUE(run_until([&] { return signals_ == 1; }));
}

TEST_F(AudioSinkTest, FlushDropsTheQueueAndSignalsTheRoom) {
    open();
    fill();
    EXPECT_TRUE(audio_sink_flush(sink_));
    EXPECT_EQ(signals_, 0) << "never from inside a call";
    EXPECT_TRUE(run_until([&] { return signals_ == 1; }));
    EXPECT_EQ(write(buffer()), buffer());
    run_for(20ms);
    EXPECT_EQ(signals_, 1);
}

TEST_F(AudioSinkTest, PauseOfAnUnstartedPcmPlaysSilenceFirstAndFlushKeepsThePause) {
    open();
    EXPECT_TRUE(audio_sink_pause(sink_));
    EXPECT_EQ(state(), SND_PCM_STATE_PAUSED);
    EXPECT_EQ(card_->counters().frames_written, 441U);
    EXPECT_TRUE(audio_sink_flush(sink_));
    EXPECT_EQ(state(), SND_PCM_STATE_PAUSED);
    EXPECT_EQ(card_->counters().frames_dropped, 441U);
    EXPECT_TRUE(audio_sink_resume(sink_));
    EXPECT_EQ(state(), SND_PCM_STATE_RUNNING);
}

TEST_F(AudioSinkTest, ClosedSinkRefusesEverythingButIsNotHarmed) {
    open();
    EXPECT_FALSE(audio_sink_open(sink_, &kCd)) << "open already";
    EXPECT_TRUE(audio_sink_is_open(sink_));
    audio_sink_close(sink_);
    audio_sink_close(sink_);
    EXPECT_EQ(write(1), -1);
    EXPECT_FALSE(audio_sink_pause(sink_) || audio_sink_resume(sink_) || audio_sink_flush(sink_) ||
                 audio_sink_drain(sink_));
    bool ok = true;
    EXPECT_EQ(audio_sink_get_buffered_frame_count(sink_, &ok), 0U);
    EXPECT_FALSE(ok);
}

TEST_F(AudioSinkTest, WriteRepairsWhatPassesAndGivesUpOnWhatStays) {
    struct row {
        Op op;
        int error;
        uint64_t times;
        bool repaired;
    };
    const row rows[] = {
        {Op::write, EINTR, 2, true},
        {Op::write, EAGAIN, 1, true},
        {Op::write, EPIPE, 1, true},
        {Op::write, EPIPE, Fault::forever, false},
        {Op::write, ESTRPIPE, 1, true},
        {Op::write, EIO, 1, true},
        {Op::write, EIO, Fault::forever, false},
        {Op::write, EAGAIN, Fault::forever, false},
        {Op::write, ENODEV, Fault::forever, false},
        {Op::pointer, EPIPE, 1, true},
        {Op::pointer, EIO, Fault::forever, false},
    };
    for (const row& row : rows) {
        SCOPED_TRACE(testing::Message() << simcard::op_name(row.op) << " " << strerror(row.error)
                                        << " x " << row.times);
        open();
        ASSERT_EQ(write(100), 100);
        card_->inject({.op = row.op, .error = row.error, .after = 0, .times = row.times});
        EXPECT_EQ(write(1000), row.repaired ? 1000 : -1);
        EXPECT_LE(calls(row.op), 20U);

        // The next session plays, whatever this one came to.
        card_->clear_faults();
        audio_sink_close(sink_);
        ASSERT_TRUE(audio_sink_open(sink_, &kCd));
        EXPECT_EQ(write(1000), 1000);
    }
}

TEST_F(AudioSinkTest, ShortWritesAreCompleted) {
    open();
    card_->shorten_writes(7, 3);
    EXPECT_EQ(write(1000), 1000);
    EXPECT_EQ(card_->counters().frames_written, 1000U);
}

TEST_F(AudioSinkTest, SuspendedDeviceGoesOnOrFailsTheWrite) {
    open();
    ASSERT_EQ(write(1000), 1000);
    card_->suspend(simcard::Resume::works);
    EXPECT_EQ(write(1000), 1000);
    card_->suspend(simcard::Resume::stuck);
    EXPECT_EQ(write(1000), -1);
}

// The renderer learns of the failure from the write that follows the signal.
TEST_F(AudioSinkTest, DeviceThatFailsWhileTheSinkWaitsIsSignalledOnceAndFailsTheWrite) {
    const auto cells = std::to_array<std::pair<const char*, void (*)(simcard::Card&)>>({
        {"unplugged", [](simcard::Card& card) { card.unplug(); }},
        {"no space query",
         [](simcard::Card& card) {
             card.inject({.op = Op::pointer, .error = EIO, .after = 0, .times = Fault::forever});
             card.inject({.op = Op::prepare, .error = EIO, .after = 0, .times = Fault::forever});
             card.play(card.stream().period_frames);
         }},
        {"stuck in suspend", [](simcard::Card& card) { card.suspend(simcard::Resume::stuck); }},
    });
    for (const auto& [name, fail] : cells) {
        SCOPED_TRACE(name);
        open();
        signals_ = 0;
        fill();
        fail(*card_);
        EXPECT_TRUE(run_until([&] { return signals_ > 0; }));
        EXPECT_EQ(write(1000), -1);
        run_for(50ms);
        EXPECT_EQ(signals_, 1);
        EXPECT_LE(calls(Op::poll_revents), 20U);
        audio_sink_close(sink_);
    }
}

TEST_F(AudioSinkTest, FlushDrainAndDelayReportAFailedDevice) {
    open();
    ASSERT_EQ(write(1000), 1000);
    card_->inject({.op = Op::drain, .error = EIO});
    EXPECT_FALSE(audio_sink_drain(sink_));
    ASSERT_EQ(write(1000), 1000) << "and the sink goes on";
    card_->inject({.op = Op::pause, .error = EIO});
    EXPECT_FALSE(audio_sink_pause(sink_));
    card_->unplug();
    bool ok = true;
    EXPECT_EQ(audio_sink_get_buffered_frame_count(sink_, &ok), 0U);
    EXPECT_FALSE(ok);
    EXPECT_FALSE(audio_sink_flush(sink_));
    EXPECT_FALSE(audio_sink_pause(sink_));
}

TEST_F(AudioSinkTest, FailedOpenLeavesTheSinkClosedAndReady) {
    make_card();
    ASSERT_NE(new_sink(), nullptr);
    for (const Op op :
         {Op::open, Op::hw_params, Op::prepare, Op::poll_descriptor_count, Op::poll_descriptors}) {
        card_->inject({.op = op, .error = EBUSY});
        EXPECT_FALSE(audio_sink_open(sink_, &kCd)) << simcard::op_name(op);
        EXPECT_FALSE(audio_sink_is_open(sink_));
    }
    const nuv_audio_format impossible[] = {
        {44100, 9, NUV_AUDIO_SAMPLE_FORMAT_16_BIT},
        {44100, 0, NUV_AUDIO_SAMPLE_FORMAT_16_BIT},
    };
    for (const nuv_audio_format& format : impossible) {
        EXPECT_FALSE(audio_sink_open(sink_, &format));
        EXPECT_FALSE(audio_sink_is_open(sink_));
    }
    EXPECT_TRUE(audio_sink_open(sink_, &kCd));
}

TEST_F(AudioSinkTest, DescriptorThatTheLoopCannotWatchFailsTheOpen) {
    unsetenv("ALSA_CONFIG_PATH");  // ALSA's own devices
    ASSERT_NE(new_sink("null"), nullptr);
    EXPECT_FALSE(audio_sink_open(sink_, &kCd));
    EXPECT_FALSE(audio_sink_is_open(sink_));
}

TEST_F(AudioSinkTest, RateThatIsOnlyApproximatedStillPlays) {
    simcard::Settings settings = stopped_clock();
    settings.rates = {48000};
    make_card(settings);
    ASSERT_NE(new_sink(), nullptr);
    ASSERT_TRUE(audio_sink_open(sink_, &kCd));
    EXPECT_EQ(write(1000), 1000);
    EXPECT_EQ(card_->stream().rate, 48000U);
}

TEST_F(AudioSinkTest, DeviceThatCanNeverPlayGivesNoSink) {
    simcard::Settings settings = stopped_clock();
    settings.impossible = true;
    make_card(settings);
    EXPECT_EQ(new_sink(), nullptr);

    settings = stopped_clock();
    settings.maximum_rate = 32000;
    make_card(settings);
    g_items[kALSAOutputDeviceName] = "fixed48k";
    EXPECT_EQ(new_sink(), nullptr);
    g_items[kALSAOutputDeviceName] = "fixed96k";
    EXPECT_NE(new_sink(), nullptr) << "announced above CD: not asked for CD";
    free_sink();

    make_card();
    card_->inject({.op = Op::open, .error = EBUSY});
    ASSERT_NE(new_sink(), nullptr) << "busy now, perhaps not later";
    EXPECT_TRUE(audio_sink_open(sink_, &kCd));
}

TEST_F(AudioSinkTest, AnnouncedQualityFollowsTheOutputSettings) {
    struct row {
        const char* device;
        const char* rates;
        nuv_audio_quality quality;
    };
    constexpr row kRows[] = {
        {"", "", NUV_AUDIO_QUALITY_HI_RES_LEVEL_2},
        {"default", "default", NUV_AUDIO_QUALITY_HI_RES_LEVEL_2},
        {"default", "44100,48000,96000,192000", NUV_AUDIO_QUALITY_HI_RES_LEVEL_2},
        {"my_default_out", "44100,176400,", NUV_AUDIO_QUALITY_HI_RES_LEVEL_2},
        {"default", "96000,176399", NUV_AUDIO_QUALITY_HI_RES_LEVEL_1},
        {"default", "192000,96000", NUV_AUDIO_QUALITY_HI_RES_LEVEL_1},
        {"default", "44100,48000", NUV_AUDIO_QUALITY_CD},
        {"default", "22050", NUV_AUDIO_QUALITY_CD},
        {"default", "44100,fast", NUV_AUDIO_QUALITY_HI_RES_LEVEL_2},
        {"default", ",,,", NUV_AUDIO_QUALITY_HI_RES_LEVEL_2},
        {"default", "99999999999999999999", NUV_AUDIO_QUALITY_HI_RES_LEVEL_2},
        {"hw_fixed96k", "44100", NUV_AUDIO_QUALITY_HI_RES_LEVEL_1},
        {"fixed48k", "192000", NUV_AUDIO_QUALITY_CD},
        {"hw:0", "192000", NUV_AUDIO_QUALITY_CD},
    };
    make_card();
    ASSERT_NE(new_sink(), nullptr);
    for (const row& row : kRows) {
        g_items = {{kALSAOutputDeviceName, row.device}, {kOutputFS, row.rates}};
        EXPECT_EQ(audio_sink_get_maximum_supported_audio_quality(sink_), row.quality)
            << row.device << " " << row.rates;
    }
}

TEST_F(AudioSinkTest, VolumeAndMutePassThroughWhereThereIsAnElement) {
    make_card();
    ASSERT_NE(new_sink(), nullptr);
    audio_sink_set_volume(sink_, 80);
    audio_sink_set_mute_state(sink_, true);
    EXPECT_TRUE(run_until([&] { return volume_ == 80 && muted_; }));
    EXPECT_EQ(audio_sink_get_volume(sink_), 80U);
    EXPECT_TRUE(audio_sink_get_mute_state(sink_));

    simcard::Settings settings = stopped_clock();
    settings.element.present = false;
    free_sink();
    make_card(settings);
    ASSERT_NE(new_sink(), nullptr);
    audio_sink_set_volume(sink_, 80);
    audio_sink_set_mute_state(sink_, true);
    EXPECT_EQ(audio_sink_get_volume(sink_), 50U);
    EXPECT_FALSE(audio_sink_get_mute_state(sink_));
}

}  // namespace
