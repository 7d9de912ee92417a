// The inside of the daemon, one call at a time: an offer of the SDK down to snd_pcm_writei, a
// controller's request, a log line.
//
// ALSA's calls on the way of an offer are answered here, so that what is measured is the daemon's
// own code; the same with the simulated card behind them shows what ALSA adds.
#include <alsa/asoundlib.h>
#include <benchmark/benchmark.h>
#include <dlfcn.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "bridge/host_hooks.h"
#include "fakes/fake_sdk.h"
#include "local_config/connect_request.h"
#include "media/audio_renderer.h"
#include "platform/Environment.h"
#include "tools/simcard/simcard.h"
#include "utility/log_delegate.h"

// ---- The device: its only setting, and nobody to report to

void GetEnvItemByName(const char* /*key*/, char* value) {
    std::strcpy(value, "default");
}
bool host_allow_source() {
    return true;
}
void host_report_playback_position(uint64_t position_ms) {
    benchmark::DoNotOptimize(position_ms);
}
void host_report_mute_state() {}
void host_report_volume() {}
void host_report_shuffle_repeat() {}
void host_report_playback_status(int /*status*/) {}

// ---- ALSA on the way of an offer

namespace {

bool g_alsa_is_answered_here = false;

template <typename Function>
Function* next_function(const char* name) {
    return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

}  // namespace

extern "C" {

snd_pcm_sframes_t snd_pcm_writei(snd_pcm_t* pcm, const void* buffer, snd_pcm_uframes_t size) {
    static auto* const real = next_function<decltype(snd_pcm_writei)>("snd_pcm_writei");
    return g_alsa_is_answered_here ? static_cast<snd_pcm_sframes_t>(size) : real(pcm, buffer, size);
}

snd_pcm_sframes_t snd_pcm_avail(snd_pcm_t* pcm) {
    static auto* const real = next_function<decltype(snd_pcm_avail)>("snd_pcm_avail");
    return g_alsa_is_answered_here ? 1 << 16 : real(pcm);
}

int snd_pcm_delay(snd_pcm_t* pcm, snd_pcm_sframes_t* delay) {
    static auto* const real = next_function<decltype(snd_pcm_delay)>("snd_pcm_delay");
    if (g_alsa_is_answered_here) {
        *delay = 0;
        return 0;
    }
    return real(pcm, delay);
}

snd_pcm_state_t snd_pcm_state(snd_pcm_t* pcm) {
    static auto* const real = next_function<decltype(snd_pcm_state)>("snd_pcm_state");
    return g_alsa_is_answered_here ? SND_PCM_STATE_RUNNING : real(pcm);
}

}  // extern "C"

namespace {

constexpr nuv_audio_format kHiRes{192000, 2, NUV_AUDIO_SAMPLE_FORMAT_24_BIT};
constexpr size_t kFrameBytes = 8;
constexpr uint64_t kStream = 1;

// A renderer that plays one endless stream on a card whose clock stands still.
class PlayingRenderer {
  public:
    PlayingRenderer()
        : m_folder(std::filesystem::temp_directory_path() /
                   ("nuvio-inside-bench-" + std::to_string(getpid()))),
          m_card(simcard::Card::create(m_folder, card_settings())) {
        m_card.use_in_this_process();
        uv_loop_init(&m_loop);
        m_renderer = audio_renderer_new(&m_loop, "simcard", "simcard", "Master");
        audio_renderer_set_core(m_renderer, fake_sdk::core());
        m_stream = audio_renderer_get_audio_stream_delegate(m_renderer);
        m_stream.started(fake_sdk::core(), kStream, {kHiRes, 1'000'000}, 0, m_stream.context);
        const nuv_media_delegate media = audio_renderer_get_media_delegate(m_renderer);
        media.initiate_playback(fake_sdk::core(), NUV_PLAYBACK_STATE_PLAYING, media.context);
    }
    ~PlayingRenderer() {
        m_stream.dispose(fake_sdk::core(), kStream, m_stream.context);
        audio_renderer_free(m_renderer);
        uv_run(&m_loop, UV_RUN_DEFAULT);
        uv_loop_close(&m_loop);
        std::filesystem::remove_all(m_folder);
    }
    PlayingRenderer(const PlayingRenderer&) = delete;
    PlayingRenderer& operator=(const PlayingRenderer&) = delete;

    size_t offer(const std::vector<char>& block) {
        return m_stream.data(fake_sdk::core(), kStream, block.data(), block.size(),
                             m_stream.context);
    }
    void play(size_t frames) { m_card.play(frames); }

  private:
    static simcard::Settings card_settings() {
        simcard::Settings settings;
        settings.speed = 0;
        settings.record = false;
        settings.patient = true;
        return settings;
    }

    const std::filesystem::path m_folder;
    simcard::Card m_card;
    uv_loop_t m_loop{};
    audio_renderer* m_renderer = nullptr;
    nuv_audio_stream_delegate m_stream{};
};

void offer_blocks(benchmark::State& state, bool alsa_is_answered_here) {
    PlayingRenderer renderer;
    const std::vector<char> block(4096 * kFrameBytes);
    renderer.offer(block);  // the PCM runs from here on
    g_alsa_is_answered_here = alsa_is_answered_here;
    for (auto _ : state) {
        if (renderer.offer(block) != block.size()) {
            state.SkipWithError("an offer was not taken as a whole");
            break;
        }
        if (!alsa_is_answered_here) {
            state.PauseTiming();
            renderer.play(block.size() / kFrameBytes);
            state.ResumeTiming();
        }
    }
    g_alsa_is_answered_here = false;
}

void BM_OfferOwnCode(benchmark::State& state) {
    offer_blocks(state, true);
}
BENCHMARK(BM_OfferOwnCode);

void BM_OfferOnSimulatedCard(benchmark::State& state) {
    offer_blocks(state, false);
}
BENCHMARK(BM_OfferOnSimulatedCard)->Iterations(20000);

void BM_ConnectRequestParse(benchmark::State& state) {
    const std::string token(900, 'x');
    const std::string body =
        R"({"session_id":"0a1b2c3d-0000-4000-8000-000000000001","become_active":true,)"
        R"("jwt_api":{"endpoint":"https://api.example/v1","jwt":")" +
        token + R"(","exp":4102444800},"jwt_nconnect":{"endpoint":"wss://c.example/","jwt":")" +
        token + R"(","exp":4102444800}})";
    for (auto _ : state) {
        const parsed_connect_request parsed = parse_connect_request(body.c_str());
        if (parsed.error != nullptr) {
            state.SkipWithError(parsed.error);
            break;
        }
        benchmark::DoNotOptimize(parsed.request);
    }
}
BENCHMARK(BM_ConnectRequestParse);

// To wherever standard output leads; bench/run.py sends it to /dev/null.
void BM_LogLine(benchmark::State& state) {
    unsigned long long number = 0;
    for (auto _ : state) {
        app_log(LOG_LEVEL_INFO, "[Stream %llu]: Audio stream finished", ++number);
    }
}
BENCHMARK(BM_LogLine);

}  // namespace

BENCHMARK_MAIN();
