#include "media/sink/alsa/alsa_audio_sink.h"

#include <algorithm>
#include <chrono>
#include <cstring>
#include <fstream>
#include <functional>
#include <future>
#include <iterator>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "loop_fixture.h"
#include "media/sink/alsa/alsa_utilities.h"
#include "media/sink/alsa/bounded_handle.h"
#include "media/sink/alsa/output_path.h"
#include "platform/Environment.h"
#include "temp_dir.h"
#include "tools/simcard/simcard.h"
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

class AudioSinkTest : public LoopTest {
  protected:
    AudioSinkTest() { g_items.clear(); }
    ~AudioSinkTest() override {
        free_sink();
        snd_config_update_free_global();
    }

    // A simulated card, reached through ALSA as any card. Its clock stands still unless a test
    // moves it.
    static simcard::Settings stopped_clock() {
        simcard::Settings settings;
        settings.speed = 0;
        return settings;
    }
    void make_card(const simcard::Settings& settings = stopped_clock()) {
        card_.emplace(simcard::Card::create(directory_.path(), settings));
        snd_config_update_free_global();
        card_->use_in_this_process();
    }
    uint64_t calls(Op op) const { return card_->counters()[op]; }
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
                [](audio_sink*, void* test) {
                    auto* self = static_cast<AudioSinkTest*>(test);
                    ++self->signals_;
                    std::exchange(self->on_report_, [] {})();
                },
                [](audio_sink*, uint32_t volume, void* test) {
                    auto* self = static_cast<AudioSinkTest*>(test);
                    self->changes_.insert(std::to_string(volume));
                    std::exchange(self->on_report_, [] {})();
                },
                [](audio_sink*, bool muted, void* test) {
                    static_cast<AudioSinkTest*>(test)->changes_.insert(muted ? "muted" : "unmuted");
                });
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

    // Descriptors that the loop polls now.
    long polled() const {
        std::ifstream info("/proc/self/fdinfo/" + std::to_string(uv_backend_fd(&loop_)));
        const std::istream_iterator<std::string> words(info);
        return std::count(words, {}, "tfd:");
    }

    // Of volume and mute that were reported since the last call, in any order.
    std::multiset<std::string> changes() {
        run_for(30ms);
        return std::exchange(changes_, {});
    }

    const TempDir directory_;
    std::optional<simcard::Card> card_;
    audio_sink* sink_ = nullptr;
    int signals_ = 0;
    std::function<void()> on_report_ = [] {};  // of room or volume, once
    std::multiset<std::string> changes_;
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
    EXPECT_TRUE(audio_sink_flush(sink_));
    EXPECT_EQ(signals_, 1) << "never from inside a call";
    EXPECT_TRUE(run_until([&] { return signals_ == 2; })) << "of the room of what was dropped";
    EXPECT_EQ(write(buffer()), buffer());
    run_for(20ms);
    EXPECT_EQ(signals_, 2);
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

// A row: what fails first (the prepare: that of a flush), the call that hangs then, and whose it
// is; in which states of the sink: Idle, Waiting for room, in the Callback, Paused and Flushed
// waiting.
TEST_F(AudioSinkTest, PcmOnWhichACallHangsIsLeftAloneUntilItReturns) {
    make_card();
    ASSERT_NE(new_sink(), nullptr);
    run_for(1ms);
    const long without_pcm = polled();
    bool ok = false;
    const auto delay = [&] { audio_sink_get_buffered_frame_count(sink_, &ok); };
    const auto more = [&] { ok = write(1) >= 0; };
    const auto flush = [&] { ok = audio_sink_flush(sink_); };
    const auto drain = [&] { ok = audio_sink_drain(sink_); };
    const auto close = [&] { audio_sink_close(sink_); };
    const auto look = [&] { run_until([&] { return signals_ > 0; }); };
    const struct {
        std::optional<simcard::Fault> first;
        Op hangs;
        std::function<void()> call;
        std::string states;
        uint32_t ms = 1500;
    } rows[] = {
        {{{Op::delay, EPIPE}}, Op::prepare, delay, "WCP"},
        {{{Op::delay, ESTRPIPE}}, Op::resume, delay, "P"},
        {{{Op::prepare, EIO}}, Op::prepare, delay, "F"},
        {{{Op::pointer, EPIPE}}, Op::prepare, more, "C"},
        {{{Op::prepare, EIO}}, Op::prepare, more, "I"},
        {{{Op::pointer, EPIPE}}, Op::prepare, look, "W"},
        {{}, Op::prepare, flush, "P"},
        {{}, Op::drop, flush, "F"},
        {{}, Op::drop, close, "C"},
        {{}, Op::drain, drain, "W", 2200},
    };
    for (const auto& row : rows) {
        for (const char state : row.states) {
            SCOPED_TRACE(std::to_string(&row - rows) + state);
            ASSERT_TRUE(audio_sink_open(sink_, &kCd));
            card_->reset_counters();
            signals_ = 0;
            const bool waits = state != 'I';
            ASSERT_GT(write(waits ? buffer() + 1 : 100), 0);
            run_for(1ms);
            ASSERT_EQ(polled(), without_pcm + (waits ? 1 : 0));
            card_->play(waits ? period() : 1);
            ASSERT_TRUE(state != 'P' || audio_sink_pause(sink_));
            ASSERT_TRUE(state != 'F' || audio_sink_flush(sink_));
            ok = false;
            on_report_ = [&] {
                if (row.first) {
                    card_->inject(*row.first);
                    ok = row.first->op == Op::prepare && audio_sink_flush(sink_);
                }
                card_->inject({.op = row.hangs, .error = EIO, .ms = row.ms});
                row.call();
                EXPECT_FALSE(ok);
                EXPECT_EQ(polled(), without_pcm);
            };
            if (state != 'C') {
                std::exchange(on_report_, [] {})();
            }
            EXPECT_TRUE(!waits || run_until([&] { return signals_ > 0; }));
            EXPECT_EQ(write(1), -1);
            EXPECT_FALSE(audio_sink_pause(sink_) || audio_sink_resume(sink_));
            if (audio_sink_is_open(sink_)) {
                EXPECT_TRUE(run_until([&] { return audio_sink_flush(sink_); }));
                EXPECT_GT(write(buffer() + 1), 0);
                run_for(1ms);
                EXPECT_EQ(polled(), without_pcm + 1);
                audio_sink_close(sink_);
            }
            EXPECT_TRUE(run_until([&] { return card_->counters().closes == 1; }));
            EXPECT_EQ(signals_, waits ? 1 : 0);
            card_->clear_faults();
        }
    }
    ASSERT_TRUE(audio_sink_open(sink_, &kCd));
    EXPECT_EQ(write(100), 100);
}

// In a start, which a write brings, ALSA waits for a server without end.
TEST_F(AudioSinkTest, ServerThatMayHaveHungSinceThePauseIsAskedBeforeTheMusicStarts) {
    open();
    ASSERT_EQ(write(100), 100);
    ASSERT_TRUE(audio_sink_flush(sink_));
    const uint64_t prepares = calls(Op::prepare);
    ASSERT_EQ(write(100), 100) << "a seek";
    EXPECT_EQ(calls(Op::prepare), prepares);
    ASSERT_TRUE(audio_sink_flush(sink_));
    std::this_thread::sleep_for(1100ms);
    card_->inject({.op = Op::prepare, .ms = 300});  // it is slow
    EXPECT_EQ(write(100), 100);
    EXPECT_EQ(calls(Op::prepare), prepares + 2);
    ASSERT_TRUE(audio_sink_flush(sink_));
    std::this_thread::sleep_for(1100ms);
    card_->inject({.op = Op::prepare, .ms = 1500});
    EXPECT_EQ(write(100), -1);
    audio_sink_close(sink_);
    card_->inject({.op = Op::hw_params, .ms = 1500});
    EXPECT_FALSE(audio_sink_open(sink_, &kCd));
}

TEST_F(AudioSinkTest, WhereCallsStandStillNoFurtherDeviceIsOpened) {
    make_card();
    std::promise<void> end;
    std::vector<bounded_handle<pcm_ptr>> handles(kMaxAlsaCalls);
    const auto wait = [ended = end.get_future().share()](const pcm_ptr& /*pcm*/) {
        ended.wait();
        return 0;
    };
    for (bounded_handle<pcm_ptr>& handle : handles) {
        EXPECT_EQ(handle.call(wait, 0ms), -ETIMEDOUT);
    }
    pcm_ptr pcm;
    EXPECT_EQ(open_playback_pcm(pcm, "default"), -EAGAIN);
    end.set_value();
    while (handles.back().is_away() || running_alsa_calls() > 0) {
        std::this_thread::sleep_for(1ms);
    }
    EXPECT_EQ(open_playback_pcm(pcm, "default"), 0);
}

TEST_F(AudioSinkTest, MixerThatHangsOnASetFromItsOwnReportIsLeftAloneUntilTheNextSession) {
    make_card();
    run_for(1ms);
    const long without_mixer = polled();
    for (const bool is_own_change : {false, true}) {
        ASSERT_NE(new_sink(), nullptr);
        audio_sink_set_mute_state(sink_, true);
        run_for(30ms);
        changes_.clear();
        on_report_ = [&] {
            card_->inject({.op = Op::write_volume, .error = EIO, .ms = 1300});
            audio_sink_set_volume(sink_, 10);
            EXPECT_EQ(polled(), without_mixer);
        };
        if (is_own_change) {
            audio_sink_set_volume(sink_, 40);
        } else {
            card_->set_volume(102);
        }
        run_for(600ms);
        EXPECT_EQ(changes_, std::multiset<std::string>{"40"}) << "a lost one tells nothing";
        ASSERT_TRUE(audio_sink_open(sink_, &kCd));
        EXPECT_EQ(audio_sink_get_volume(sink_), 10U);
        EXPECT_TRUE(audio_sink_get_mute_state(sink_));
    }
}

// On which the proofs of the other tests rest.
TEST_F(AudioSinkTest, TheCardDoesWhatItIsToldWhenItIsTold) {
    open();
    const auto soon = [](const std::function<void()>& change) {
        return std::async(std::launch::async, [change] {
            std::this_thread::sleep_for(50ms);
            change();
        });
    };
    ASSERT_EQ(write(100), 100);
    card_->play(100);
    ASSERT_EQ(write(100), 100);
    EXPECT_EQ(calls(Op::prepare), 2U) << "it ran dry";
    const uint64_t writes = calls(Op::write);
    card_->shorten_writes(7, 2);
    ASSERT_EQ(write(100), 100);
    EXPECT_EQ(calls(Op::write), writes + 3);

    card_->inject({.op = Op::drain, .error = EIO});
    EXPECT_FALSE(audio_sink_drain(sink_));
    EXPECT_EQ(state(), SND_PCM_STATE_SETUP);
    ASSERT_EQ(write(8820), 8820);
    card_->inject({.op = Op::drain, .error = EINTR});
    const auto since = std::chrono::steady_clock::now();
    auto later = soon([&] { card_->set_speed(1); });
    EXPECT_TRUE(audio_sink_drain(sink_));
    EXPECT_GE(std::chrono::steady_clock::now() - since, 200ms) << "of audio";
    EXPECT_EQ(card_->counters().frames_played, 8920U);

    later.get();
    card_->set_speed(0);
    ASSERT_EQ(write(100), 100);
    later = soon([&] { card_->unplug(); });
    EXPECT_FALSE(audio_sink_drain(sink_));
    EXPECT_EQ(state(), SND_PCM_STATE_DISCONNECTED) << "it does not wait any longer";
    later.get();
    card_->plug_in();
    audio_sink_close(sink_);
    ASSERT_TRUE(audio_sink_open(sink_, &kCd));
    card_->unplug();  // and back before anyone looks
    card_->plug_in();
    EXPECT_EQ(write(100), -1) << "gone for good for whoever had it open";
}

TEST_F(AudioSinkTest, ThroughALSAsPlugACardOfOtherSamplesPlaysTheSameOnes) {
    simcard::Settings settings;
    settings.formats = {SND_PCM_FORMAT_S32_LE};
    make_card(settings);
    ASSERT_NE(new_sink("plug:simcard"), nullptr);
    ASSERT_TRUE(audio_sink_open(sink_, &kCd));
    std::vector<int16_t> samples(8000);
    for (size_t i = 0; i < samples.size(); ++i) {
        samples[i] = static_cast<int16_t>(i * 9);
    }
    bool ok = false;
    const size_t bytes = samples.size() * sizeof samples[0];
    EXPECT_EQ(audio_sink_write(sink_, samples.data(), bytes, &ok), bytes);
    EXPECT_TRUE(audio_sink_drain(sink_));
    audio_sink_close(sink_);
    const std::vector<uint8_t> heard = simcard::Card::data(card_->wait_closed());
    ASSERT_GE(heard.size(), 2 * bytes);
    for (size_t i = 0; i < samples.size(); ++i) {
        int32_t sample = 0;
        std::memcpy(&sample, &heard[4 * i], sizeof sample);
        ASSERT_EQ(sample, samples[i] * 65536) << i;
    }
}

// Numbers of the file alone, whatever the machine's own pace: 20 ppm fast, at once and a
// hundredfold, up to a drain, a pause, a halt, another speed, an underrun and frames moved by hand.
TEST_F(AudioSinkTest, TheCardTellsToTheNanosecondWhenEachFrameWasHeard) {
    constexpr double kSlow = 1.000020001, kFast = 100.002;
    constexpr snd_pcm_sframes_t kTenSeconds = 441000;
    make_card();
    snd_pcm_t* pcm = nullptr;
    ASSERT_EQ(snd_pcm_open(&pcm, "simcard", SND_PCM_STREAM_PLAYBACK, 0), 0);
    snd_pcm_set_params(pcm, SND_PCM_FORMAT_S16, SND_PCM_ACCESS_RW_INTERLEAVED, 2, 44100, 0,
                       12'000'000);
    const auto start = [&](double speed) {
        card_->set_speed(speed);
        EXPECT_NEAR(card_->speed(), speed, 1e-9);
        const std::vector<uint8_t> silence(kTenSeconds * kFrame);
        snd_pcm_prepare(pcm);
        ASSERT_EQ(snd_pcm_writei(pcm, silence.data(), kTenSeconds), kTenSeconds);
        ASSERT_EQ(snd_pcm_start(pcm), 0);
    };
    start(kFast);
    ASSERT_EQ(snd_pcm_drain(pcm), 0);
    start(kSlow);
    std::this_thread::sleep_for(20ms);
    ASSERT_EQ(snd_pcm_pause(pcm, 1), 0);
    const uint64_t paused = card_->stream().played;
    std::this_thread::sleep_for(20ms);
    ASSERT_EQ(snd_pcm_pause(pcm, 0), 0);
    std::this_thread::sleep_for(1ms);
    card_->set_speed(0);
    ASSERT_GT(snd_pcm_avail(pcm), 0);
    const uint64_t halted = card_->stream().played;
    card_->set_speed(kSlow);
    ASSERT_GT(snd_pcm_avail(pcm), 0);
    std::this_thread::sleep_for(1ms);
    card_->set_speed(kFast);
    while (snd_pcm_avail(pcm) >= 0) {
        std::this_thread::sleep_for(1ms);
    }
    start(0);
    card_->play(1000);
    snd_pcm_close(pcm);

    const std::vector<simcard::Heard> times = simcard::Card::times(card_->wait_closed());
    std::vector<uint64_t> stands, jumps;
    std::set<double> speeds;
    for (size_t i = 1; i < times.size(); ++i) {
        const auto ns = static_cast<double>(times[i].ns - times[i - 1].ns);
        const auto frames = static_cast<int64_t>(times[i].frame - times[i - 1].frame);
        const double at_speed_1 = static_cast<double>(frames) / 44.1e-6;
        if (frames == 0) {
            stands.push_back(times[i].frame);
            EXPECT_GE(ns, times[i].frame == paused ? 20e6 : 1);
        } else if (ns == 0) {
            jumps.push_back(times[i].frame);
        } else if (frames != 1) {  // or the speed changed in it
            const double speed = at_speed_1 > 10 * ns ? kFast : kSlow;
            EXPECT_NEAR(ns, at_speed_1 / speed, 1.001) << "two roundings";
            speeds.insert(speed);
        }
    }
    EXPECT_EQ(stands, (std::vector<uint64_t>{kTenSeconds, paused, halted, 2 * kTenSeconds}));
    EXPECT_EQ(jumps, std::vector<uint64_t>{2 * kTenSeconds + 1000});
    EXPECT_EQ(speeds, (std::set<double>{kSlow, kFast}));
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
        {"my_default_out", "44100,176400,", NUV_AUDIO_QUALITY_HI_RES_LEVEL_2},
        {"default", "96000,176399", NUV_AUDIO_QUALITY_HI_RES_LEVEL_1},
        {"default", "192000,96000", NUV_AUDIO_QUALITY_HI_RES_LEVEL_1},
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

TEST_F(AudioSinkTest, PercentagesMapToTheRawRangeAndBack) {
    const struct {
        long minimum, maximum;
        uint32_t set;
        long raw;
        uint32_t read;
    } rows[] = {{0, 255, 1, 2, 1},
                {0, 255, 101, 255, 100},
                {-10239, 400, 50, -4919, 50},
                {-10239, 400, 0, -10239, 0},
                {0, 31, 50, 15, 48}};
    for (const auto& row : rows) {
        simcard::Settings settings = stopped_clock();
        settings.element = {.minimum = row.minimum,
                            .maximum = row.maximum,
                            .volume = row.set < 100 ? row.maximum : row.minimum};
        make_card(settings);
        ASSERT_NE(new_sink(), nullptr);
        audio_sink_set_volume(sink_, row.set);
        EXPECT_EQ(card_->volume(0), row.raw);
        EXPECT_EQ(card_->volume(1), row.raw);
        EXPECT_EQ(audio_sink_get_volume(sink_), row.read) << row.maximum << ": " << row.set;
        free_sink();
    }
}

TEST_F(AudioSinkTest, EachChangeOfTheMixerIsReportedOnceWhoeverMadeIt) {
    using Changes = std::multiset<std::string>;
    make_card();
    ASSERT_NE(new_sink(), nullptr);
    audio_sink_set_volume(sink_, 50);  // 128 already, for which 127 would be written
    audio_sink_set_mute_state(sink_, false);
    EXPECT_EQ(calls(Op::write_volume) + calls(Op::write_switch), 0U);
    card_->set_volume(255);
    EXPECT_EQ(changes(), Changes{"100"});
    card_->set_volume(254);  // 99.6 percent, which reads as 100 too
    EXPECT_EQ(changes(), Changes{});
    card_->set_switch(false);
    EXPECT_EQ(changes(), Changes{"muted"});

    audio_sink_set_volume(sink_, 40);
    audio_sink_set_mute_state(sink_, false);
    EXPECT_EQ(changes_, Changes{}) << "never from inside a call";
    EXPECT_EQ(changes(), (Changes{"40", "unmuted"}));
    // The value that was last reported before our own write is a change again.
    card_->set_volume(255);
    EXPECT_EQ(changes(), Changes{"100"});

    const uint64_t idle = calls(Op::read_event);
    run_for(50ms);
    EXPECT_EQ(calls(Op::read_event), idle) << "a quiet mixer wakes nobody";
}

}  // namespace
