// The renderer with the real sink on the simulated card: what the streams hold is what is heard.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <map>
#include <random>
#include <string>
#include <vector>

#include "fakes/fake_sdk.h"
#include "media/audio_renderer.h"
#include "platform/Environment.h"
#include "tools/simcard/simcard.h"
#include "utility/uv_utilities.h"

// The settings name the default device.
void GetEnvItemByName(const char* /*key*/, char* value) {
    std::strcpy(value, "default");
}

namespace {

constexpr nuv_audio_format cd{44100, 2, NUV_AUDIO_SAMPLE_FORMAT_16_BIT};
constexpr nuv_audio_format hi_res{96000, 2, NUV_AUDIO_SAMPLE_FORMAT_24_BIT};

// Half a second of noise, each sample sign-extended to its container.
std::vector<uint8_t> make_track(const nuv_audio_format& format, unsigned seed) {
    std::minstd_rand noise(seed);
    const size_t sample_size = nuv_audio_sample_format_size(format.sample_format);
    const size_t samples = size_t{format.sample_rate} / 2 * format.channel_count;
    std::vector<uint8_t> pcm(samples * sample_size);
    for (size_t i = 0; i < samples; ++i) {
        const int32_t sample = static_cast<int32_t>(noise() << 8) >> (sample_size == 2 ? 16 : 8);
        std::memcpy(&pcm[i * sample_size], &sample, sample_size);
    }
    return pcm;
}

// Delivers its tracks as the SDK does: every stream is started early, data comes on passes of the
// loop while its delivery is open, and a stream is disposed of some passes after its end.
class Feeder {
  public:
    Feeder(uv_loop_t* loop, audio_renderer* renderer)
        : idle_(uv_idle_new(loop, this)),
          streams_(audio_renderer_get_audio_stream_delegate(renderer)),
          media_(audio_renderer_get_media_delegate(renderer)) {
        g_feeder = this;
        fake_sdk::on_call([](const std::string& call) { g_feeder->on_call(call); });
    }
    ~Feeder() {
        fake_sdk::on_call(nullptr);
        uv_idle_free(idle_);
    }

    void start(uint64_t id, const nuv_audio_format& format, const std::vector<uint8_t>& pcm) {
        tracks_[id] = {&pcm, 0, false};
        streams_.started(core_, id, {format, 500}, 0, streams_.context);
    }
    void play() { media_.initiate_playback(core_, NUV_PLAYBACK_STATE_PLAYING, media_.context); }
    bool is_over() const { return tracks_.empty(); }

  private:
    struct Track {
        const std::vector<uint8_t>* pcm;
        size_t delivered;
        bool open;
    };

    void on_call(const std::string& call) {
        const std::string resume = "resume_audio_delivery ";
        if (call.starts_with(resume)) {
            tracks_.at(std::stoull(call.substr(resume.size()))).open = true;
        } else if (call.starts_with("notify_playback_finished")) {
            ended_ = true;
        }
        uv_idle_start(idle_, [](uv_idle_t* idle) { static_cast<Feeder*>(idle->data)->pass(); });
    }

    void pass() {
        if (ended_) {
            ended_ = false;
            const uint64_t id = tracks_.begin()->first;
            tracks_.erase(id);
            streams_.dispose(core_, id, streams_.context);
        }
        bool busy = false;
        for (auto& [id, track] : tracks_) {
            if (track.open) {
                offer(id, track);
                busy = busy || track.open;
            }
        }
        if (!busy && !ended_) {
            uv_idle_stop(idle_);
        }
    }

    void offer(uint64_t id, Track& track) {
        const size_t size = std::min<size_t>(track.pcm->size() - track.delivered, 6000);
        const size_t taken =
            streams_.data(core_, id, track.pcm->data() + track.delivered, size, streams_.context);
        track.delivered += taken;
        track.open = taken == size;
        if (track.delivered == track.pcm->size()) {
            track.open = false;
            streams_.finished(core_, id, streams_.context);
        }
    }

    static inline Feeder* g_feeder = nullptr;
    nuv_connect* core_ = fake_sdk::core();
    uv_idle_t* idle_;
    nuv_audio_stream_delegate streams_;
    nuv_media_delegate media_;
    std::map<uint64_t, Track> tracks_;
    bool ended_ = false;
};

TEST(RendererOnACard, TracksOfOneFormatPlayAsOneAndAnotherFormatReopensTheCard) {
    const auto directory =
        std::filesystem::temp_directory_path() / ("renderer-card-" + std::to_string(getpid()));
    simcard::Card card = simcard::Card::create(directory);
    card.use_in_this_process();
    fake_sdk::reset();
    uv_loop_t loop{};
    ASSERT_EQ(uv_loop_init(&loop), 0);
    audio_renderer* renderer = audio_renderer_new(&loop, "simcard", "simcard", "Master");
    ASSERT_NE(renderer, nullptr);
    audio_renderer_set_core(renderer, fake_sdk::core());

    const auto first = make_track(cd, 1);
    const auto second = make_track(cd, 2);
    const auto third = make_track(hi_res, 3);
    {
        Feeder feeder(&loop, renderer);
        feeder.start(1, cd, first);
        feeder.start(2, cd, second);
        feeder.start(3, hi_res, third);
        feeder.play();
        uv_timer_t* deadline = uv_timer_new(&loop, nullptr);
        uv_timer_start(
            deadline, [](uv_timer_t*) {}, 30000, 0);
        while (!feeder.is_over() && uv_timer_is_active(deadline)) {
            uv_run(&loop, UV_RUN_ONCE);
        }
        uv_timer_free(deadline);
        EXPECT_TRUE(feeder.is_over());
    }
    EXPECT_THAT(fake_sdk::calls(), testing::Contains("notify_playback_finished true"));
    audio_renderer_free(renderer);
    uv_run(&loop, UV_RUN_DEFAULT);
    EXPECT_EQ(uv_loop_close(&loop), 0);

    const auto recordings = card.recordings();
    ASSERT_EQ(recordings.size(), 2U);
    auto both = first;
    both.insert(both.end(), second.begin(), second.end());
    EXPECT_EQ(recordings[0].format, SND_PCM_FORMAT_S16_LE);
    EXPECT_TRUE(simcard::Card::data(recordings[0]) == both) << "end to end, bit for bit";
    EXPECT_EQ(recordings[1].format, SND_PCM_FORMAT_S24_LE);
    EXPECT_EQ(recordings[1].rate, 96000U);
    EXPECT_TRUE(simcard::Card::data(recordings[1]) == third);
    std::filesystem::remove_all(directory);
}

}  // namespace
