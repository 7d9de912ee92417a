#include "media/sink/alsa/alsa_audio_sink.h"

#include <cstring>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "media/sink/alsa/output_path.h"
#include "platform/Environment.h"
#include "simcard/card_fixture.h"
#include "utility/service_record.h"

using namespace std::chrono_literals;
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
                [](audio_sink*, uint32_t, void*) {}, [](audio_sink*, bool, void*) {});
        }
        return sink_;
    }
    void open() {
        make_card();
        ASSERT_NE(new_sink(), nullptr);
        ASSERT_TRUE(audio_sink_open(sink_, &kCd));
    }
    // The frames accepted, or -1.
    long write(long frames, size_t extra_bytes = 0) {
        const std::vector<uint8_t> data((static_cast<size_t>(frames) * kFrame) + extra_bytes);
        bool ok = false;
        const size_t taken = audio_sink_write(sink_, data.data(), data.size(), &ok);
        EXPECT_EQ(taken % kFrame, 0U);
        EXPECT_TRUE(ok || taken == 0);
        return ok ? static_cast<long>(taken / kFrame) : -1;
    }
    // Frames of the card's buffer and of one of its periods.
    long buffer() const { return static_cast<long>(card_->stream().buffer_frames); }
    long period() const { return static_cast<long>(card_->stream().period_frames); }
    snd_pcm_state_t state() const { return card_->stream().state; }

    audio_sink* sink_ = nullptr;
    int signals_ = 0;
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

TEST_F(AudioSinkTest, FlushDropsTheQueueAndSignalsTheRoom) {
    open();
    ASSERT_EQ(write(buffer() + 1), buffer());
    run_for(20ms);
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
    card_->inject({.op = Op::pause, .error = EIO});
    EXPECT_FALSE(audio_sink_pause(sink_));
}

TEST_F(AudioSinkTest, WhatCannotBePlayedOrWatchedFailsTheOpen) {
    make_card();
    ASSERT_NE(new_sink(), nullptr);
    for (const uint32_t channels : {9U, 0U}) {
        const nuv_audio_format format{44100, channels, NUV_AUDIO_SAMPLE_FORMAT_16_BIT};
        EXPECT_FALSE(audio_sink_open(sink_, &format));
    }
    EXPECT_FALSE(audio_sink_is_open(sink_));
    EXPECT_TRUE(audio_sink_open(sink_, &kCd)) << "it is ready for the next";
    free_sink();
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
    const service_output noted = service_record_read().output.value();
    const output_path path =
        read_output_path({noted.rate, noted.bits, noted.channels, {}}, noted.set_up);
    EXPECT_EQ(path.bit_exact, false);
    EXPECT_EQ(path.why, "44100 Hz become 48000");
    free_sink();
    EXPECT_FALSE(service_record_read().output);
}

TEST(OutputPathTest, LayersAreReadFromWhatAlsaTells) {
    const auto layer = [](const std::string& name, const char* format, int bits) {
        return name + "\nIts setup is:\n  format       : " + format +
               "\n  channels     : 2\n  rate         : 44100\n  exact rate   : 44100 (44100/1)\n"
               "  msbits       : " +
               std::to_string(bits) + "\n";
    };
    const std::string card =
        layer("Slave: Hardware PCM card 0 'USB' device 0 subdevice 0", "S32_LE", 24);
    const std::string wide = layer("Plug PCM: Linear conversion PCM (S32_LE)", "S24_LE", 24) + card;
    const std::string software =
        layer("Soft volume PCM\nControl: Nuvio\nmin_dB: -51", "S24_LE", 24);
    const std::string mixed = layer("Direct Stream Mixing PCM\n", "S32_LE", 32) + card.substr(7);
    const std::string narrow = layer("Linear conversion PCM (S16_LE)", "S24_LE", 24) +
                               layer("Slave: Null PCM", "S16_LE", 16);
    struct Case {
        std::string description;
        std::optional<bool> exact;
        std::string why;
    };
    for (const Case& one : {Case{wide, true, ""},
                            Case{software + card, {}, "not known what this does: Soft volume PCM"},
                            Case{mixed, false, "mixed with what other programs play"},
                            Case{narrow, false, "24 bits become 16"},
                            Case{"", {}, "ALSA does not tell what it set up"}}) {
        const output_path path = read_output_path({44100, 24, 2, {}}, one.description);
        EXPECT_EQ(path.bit_exact, one.exact) << one.description;
        EXPECT_EQ(path.why, one.why);
    }
    const output_path path = read_output_path({44100, 24, 2, {}}, wide);
    EXPECT_EQ(path.layers,
              (std::vector<std::string>{"Linear conversion PCM (S32_LE)",
                                        "Hardware PCM card 0 'USB' device 0 subdevice 0"}));
    EXPECT_EQ(path.last.value().name, "S32_LE");
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
    const struct {
        const char* device;
        const char* rates;
        nuv_audio_quality quality;
    } rows[] = {
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
    for (const auto& row : rows) {
        g_items = {{kALSAOutputDeviceName, row.device}, {kOutputFS, row.rates}};
        EXPECT_EQ(audio_sink_get_maximum_supported_audio_quality(sink_), row.quality)
            << row.device << " " << row.rates;
    }
}

}  // namespace
