// The renderer, its sources and its sink under one stream of many hours, on a card whose clock runs
// as fast as the machine can follow: counts and positions beyond 32 bits, and nothing used up.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cinttypes>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <string>
#include <vector>

#include "bridge/host_hooks.h"
#include "fakes/fake_sdk.h"
#include "media/audio_renderer.h"
#include "platform/Environment.h"
#include "temp_dir.h"
#include "tools/simcard/simcard.h"
#include "utility/uv_utilities.h"

// ---- The host -----------------------------------------------------------------------------------

namespace {

struct {
    uint64_t reports = 0;
    uint64_t last_ms = 0;
    uint64_t furthest_back_ms = 0;
} g_host;

}  // namespace

void GetEnvItemByName(const char* /*key*/, char* value) {
    std::strcpy(value, "default");
}
bool host_allow_source() {
    return true;
}
void host_report_playback_position(uint64_t position_ms) {
    ++g_host.reports;
    if (position_ms < g_host.last_ms) {
        g_host.furthest_back_ms = std::max(g_host.furthest_back_ms, g_host.last_ms - position_ms);
    }
    g_host.last_ms = position_ms;
}
void host_report_mute_state() {}
void host_report_volume() {}
void host_report_shuffle_repeat() {}
void host_report_playback_status(int /*status*/) {}

namespace {

// ---- What a long run must not use up -----------------------------------------------------------

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool has_sanitizer = true;
#else
constexpr bool has_sanitizer = false;
#endif

// 0 when the kernel does not tell.
uint64_t anonymous_memory_kib() {
    std::ifstream status("/proc/self/status");
    const std::string key = "RssAnon:";
    for (std::string line; std::getline(status, line);) {
        if (line.starts_with(key)) {
            return std::stoull(line.substr(key.size()));
        }
    }
    return 0;
}

struct ProcessFigures {
    uint64_t memory_kib = anonymous_memory_kib();
    size_t descriptors = entries("/proc/self/fd");
    size_t threads = entries("/proc/self/task");

    static size_t entries(const char* directory) {
        const std::filesystem::directory_iterator all(directory);
        return static_cast<size_t>(std::distance(begin(all), end(all)));
    }
};

// Prints what a run used from `before` to `after`.
void report(double hours, std::chrono::steady_clock::time_point since, const ProcessFigures& before,
            const ProcessFigures& after) {
    const std::chrono::duration<double> wall = std::chrono::steady_clock::now() - since;
    std::printf("soak: %.2f h of audio in %.1f s; memory %" PRIu64 " -> %" PRIu64
                " KiB, descriptors %zu -> %zu, threads %zu -> %zu\n",
                hours, wall.count(), before.memory_kib, after.memory_kib, before.descriptors,
                after.descriptors, before.threads, after.threads);
}

// ---- The stream --------------------------------------------------------------------------------

constexpr nuv_audio_format format{192000, 2, NUV_AUDIO_SAMPLE_FORMAT_24_BIT};
constexpr size_t frame_bytes = 8;
constexpr unsigned buffer_ms = 400;
constexpr uint64_t hour_frames = uint64_t{format.sample_rate} * 3600;

// Beyond 2^32 frames, which is 32 GiB, also in the short form.
double soak_hours() {
    if (const char* hours = std::getenv("NUVIO_SOAK_HOURS")) {
        return std::strtod(hours, nullptr);
    }
    return std::getenv("NUVIO_LONG") != nullptr ? 24 : 6.5;
}

uint64_t frames_at(uint64_t ms) {
    return format.sample_rate * ms / 1000;
}

// The SDK with one stream, delivered in large pieces on passes of the loop while delivery is open.
// The frames are silence: their number is what counts.
class OneStream {
  public:
    OneStream(uv_loop_t* loop, audio_renderer* renderer)
        : idle_(uv_idle_new(loop, this)),
          streams_(audio_renderer_get_audio_stream_delegate(renderer)),
          media_(audio_renderer_get_media_delegate(renderer)) {
        g_current = this;
        fake_sdk::on_call([](const std::string& call) { g_current->on_call(call); });
    }
    ~OneStream() {
        fake_sdk::on_call(nullptr);
        uv_idle_free(idle_);
    }
    OneStream(const OneStream&) = delete;
    OneStream& operator=(const OneStream&) = delete;

    // Called each time the sink is full.
    void when_full(std::function<void()> observer) { when_full_ = std::move(observer); }
    void play(uint64_t from_ms, uint64_t frames) {
        begin_at(from_ms, frames);
        const uint64_t duration_ms = end_ * 1000 / format.sample_rate;
        streams_.started(core_, id, {format, duration_ms}, from_ms, streams_.context);
        media_.initiate_playback(core_, NUV_PLAYBACK_STATE_PLAYING, media_.context);
    }
    // Goes on from there, with as much to deliver as is given.
    void seek(uint64_t to_ms, uint64_t frames) {
        media_.seek_in_progress(core_, media_.context);
        begin_at(to_ms, frames);
        streams_.seeked(core_, id, to_ms, streams_.context);
    }
    bool is_over() const { return over_; }
    // In frames of the track: what the renderer has taken.
    uint64_t position() const { return position_; }
    uint64_t taken_since_seek() const { return position_ - begin_; }
    uint64_t heard_ms() { return media_.get_playback_position(core_, media_.context); }

  private:
    static constexpr uint64_t id = 1;

    void begin_at(uint64_t ms, uint64_t frames) {
        begin_ = position_ = frames_at(ms);
        end_ = begin_ + frames;
    }

    void on_call(const std::string& call) {
        if (call.starts_with("resume_audio_delivery")) {
            uv_idle_start(idle_,
                          [](uv_idle_t* idle) { static_cast<OneStream*>(idle->data)->pass(); });
        }
        over_ = over_ || call.starts_with("notify_playback_finished") ||
                call.starts_with("notify_playback_error");
    }

    void pass() {
        fake_sdk::take_calls();  // they would add up
        const uint64_t frames = std::min<uint64_t>(piece_.size() / frame_bytes, end_ - position_);
        const auto size = static_cast<size_t>(frames) * frame_bytes;
        const size_t taken = streams_.data(core_, id, piece_.data(), size, streams_.context);
        EXPECT_EQ(taken % frame_bytes, 0U);
        position_ += taken / frame_bytes;
        if (taken < size) {
            uv_idle_stop(idle_);
            when_full_();
        } else if (position_ == end_) {
            uv_idle_stop(idle_);
            streams_.finished(core_, id, streams_.context);
        }
    }

    static inline OneStream* g_current = nullptr;
    const std::vector<uint8_t> piece_ = std::vector<uint8_t>(100'000 * frame_bytes);
    nuv_connect* core_ = fake_sdk::core();
    uv_idle_t* idle_;
    nuv_audio_stream_delegate streams_;
    nuv_media_delegate media_;
    std::function<void()> when_full_ = [] {};
    uint64_t begin_ = 0;
    uint64_t position_ = 0;
    uint64_t end_ = 0;
    bool over_ = false;
};

class LongStream : public testing::Test {
  protected:
    LongStream() {
        card_.use_in_this_process();
        fake_sdk::reset();
        g_host = {};
        uv_loop_init(&loop_);
        renderer_ = audio_renderer_new(&loop_, "simcard", "simcard", "Master");
        audio_renderer_set_core(renderer_, fake_sdk::core());
    }
    ~LongStream() override {
        audio_renderer_free(renderer_);
        uv_run(&loop_, UV_RUN_DEFAULT);
        EXPECT_EQ(uv_loop_close(&loop_), 0);
    }

    void run(const OneStream& stream) {
        while (!stream.is_over()) {
            uv_run(&loop_, UV_RUN_ONCE);
        }
        EXPECT_THAT(fake_sdk::calls(), testing::Contains("notify_playback_finished true"));
    }

    // The answer is made from the card's own count, which nothing moves between the two.
    void check_position(OneStream& stream) {
        const uint64_t heard_ms = stream.heard_ms();
        const simcard::Stream card = card_.stream();
        const uint64_t queued = card.written - card.played - card_.counters().frames_dropped;
        const uint64_t exact_ms = (stream.position() - queued) * 1000 / format.sample_rate;
        // Both terms of the renderer's difference are whole milliseconds.
        ASSERT_GE(heard_ms, exact_ms);
        ASSERT_LE(heard_ms, exact_ms + 1);
    }

    static simcard::Settings fast_card() {
        simcard::Settings settings;
        settings.patient = true;
        settings.record = false;
        settings.speed = 100'000;
        settings.default_buffer_ms = buffer_ms;
        return settings;
    }

    const TempDir directory_;
    simcard::Card card_ = simcard::Card::create(directory_.path(), fast_card());
    uv_loop_t loop_{};
    audio_renderer* renderer_ = nullptr;
};

TEST_F(LongStream, HoursOfOneStreamAreCountedToTheFrameAndUseNothingUp) {
    constexpr uint64_t allowed_growth_kib = 256;
    const double hours = soak_hours();
    const auto frames = static_cast<uint64_t>(hours * static_cast<double>(hour_frames));
    const auto since = std::chrono::steady_clock::now();
    OneStream stream(&loop_, renderer_);
    std::vector<ProcessFigures> samples;
    uint64_t checks = 0;
    stream.when_full([&] {
        check_position(stream);
        ++checks;
        if (stream.position() > frames / 50 * (samples.size() + 1)) {
            samples.emplace_back();
        }
    });
    stream.play(0, frames);
    run(stream);
    ASSERT_GE(samples.size(), 48U);
    const ProcessFigures& settled = samples[4];
    const ProcessFigures& last = samples.back();
    report(hours, since, settled, last);

    const simcard::Counters counters = card_.counters();
    EXPECT_EQ(counters.frames_played, frames);
    EXPECT_EQ(counters.frames_dropped, 0U);
    EXPECT_EQ(counters.underruns, 0U);
    std::printf("soak: %" PRIu64 " frames, %" PRIu64 " positions checked, %" PRIu64 " reported\n",
                frames, checks, g_host.reports - checks);
    // A report from inside a write comes before the write's frames count.
    EXPECT_LE(g_host.furthest_back_ms, buffer_ms + 1);

    EXPECT_GT(checks, frames / format.sample_rate);
    EXPECT_EQ(last.threads, settled.threads);
    EXPECT_EQ(last.descriptors, settled.descriptors);
    if (!has_sanitizer) {
        EXPECT_LE(last.memory_kib, settled.memory_kib + allowed_growth_kib);
    }
}

TEST_F(LongStream, PositionsGoOnBeyondThirtyTwoBitsOfMilliseconds) {
    constexpr uint64_t edge_ms = uint64_t{1} << 32;
    constexpr uint64_t ten_seconds = uint64_t{format.sample_rate} * 10;
    OneStream stream(&loop_, renderer_);
    std::vector<uint64_t> seeks = {edge_ms / 2 - 5000, 3 * edge_ms - 5000, 1000, edge_ms + 7};
    stream.when_full([&] {
        check_position(stream);
        if (!seeks.empty() && stream.taken_since_seek() > ten_seconds * 9 / 10) {
            stream.seek(seeks.back(), ten_seconds);
            ASSERT_EQ(stream.heard_ms(), seeks.back());
            seeks.pop_back();
        }
    });
    stream.play(edge_ms - 5000, ten_seconds);
    run(stream);
    EXPECT_THAT(seeks, testing::IsEmpty());
    EXPECT_EQ(stream.position(), frames_at(edge_ms / 2 - 5000) + ten_seconds);
}

}  // namespace
