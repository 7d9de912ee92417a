// The renderer, its sources and its sink under one stream of many hours, on a card whose clock runs
// as fast as the machine can follow: counts beyond 32 bits, and nothing used up.
#include <gtest/gtest.h>

#include <chrono>
#include <cinttypes>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <vector>

#include "faults/card_sessions.h"
#include "platform/Environment.h"
#include "renderer/journal.h"

// The settings name the default device.
void GetEnvItemByName(const char* /*key*/, char* value) {
    std::strcpy(value, "default");
}

namespace {

// ---- What a long run must not use up -----------------------------------------------------------

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool kHasSanitizer = true;
#else
constexpr bool kHasSanitizer = false;
#endif

uint64_t anonymous_memory_kib() {
    std::ifstream statm("/proc/self/statm");
    uint64_t size = 0, resident = 0, of_files = 0;  // pages
    statm >> size >> resident >> of_files;
    return (resident - of_files) * static_cast<uint64_t>(sysconf(_SC_PAGESIZE)) / 1024;
}

struct ProcessFigures {
    uint64_t memory_kib = anonymous_memory_kib();
    size_t descriptors = entries_of("/proc/self/fd");
    size_t threads = entries_of("/proc/self/task");
};

// ---- The stream --------------------------------------------------------------------------------

constexpr nuv_audio_format kFormat{192000, 2, NUV_AUDIO_SAMPLE_FORMAT_24_BIT};

// Beyond 2^32 frames, which is 32 GiB, also in the short form.
double soak_hours() {
    if (const char* hours = std::getenv("NUVIO_SOAK_HOURS")) {
        return std::strtod(hours, nullptr);
    }
    return std::getenv("NUVIO_LONG") != nullptr ? 24 : 6.5;
}

class LongStream : public CardSessions {
  protected:
    LongStream() {
        alarm(0);  // as long as it takes
        make_renderer();
    }

    // The answer is made from the card's own count, which nothing moves between the two.
    void check_position(uint64_t taken_frames) {
        const nuv_media_delegate media = audio_renderer_get_media_delegate(renderer_);
        const uint64_t heard = media.get_playback_position(fake_sdk::core(), media.context);
        const simcard::Stream card = card_.stream();
        const uint64_t queued = card.written - card.played;
        const uint64_t exact_ms = (taken_frames - queued) * 1000 / kFormat.sample_rate;
        // Both terms of the renderer's difference are whole milliseconds.
        ASSERT_GE(heard, exact_ms);
        ASSERT_LE(heard, exact_ms + 1);
    }

    static simcard::Settings fast_card() {
        simcard::Settings settings;
        settings.patient = true;
        settings.record = false;
        settings.speed = 100'000;
        settings.default_buffer_ms = 400;
        return settings;
    }

    simcard::Card card_ = make_card(fast_card());
};

TEST_F(LongStream, HoursOfOneStreamAreCountedToTheFrameAndUseNothingUp) {
    constexpr uint64_t kAllowedGrowthKib = 256;
    const double hours = soak_hours();
    const Clip track{kFormat, static_cast<uint64_t>(hours * 3'600'000), true};
    const uint64_t frames = track.frames();
    const auto since = std::chrono::steady_clock::now();
    ScriptedSdk sdk(&loop_, renderer_);
    std::vector<ProcessFigures> samples;
    uint64_t checks = 0;
    sdk.at([&](Point point) {
        if (point == Point::waiting) {
            check_position(sdk.frames_taken());
            ++checks;
            if (sdk.frames_taken() > frames / 50 * (samples.size() + 1)) {
                samples.emplace_back();
            }
        }
    });
    sdk.play({track});
    while (!sdk.is_over()) {
        uv_run(&loop_, UV_RUN_ONCE);
        fake_sdk::take_calls();  // these would add up
        journal::take();
    }
    EXPECT_TRUE(sdk.ended());
    ASSERT_GE(samples.size(), 48U);
    const ProcessFigures& settled = samples[4];
    const ProcessFigures& last = samples.back();
    const std::chrono::duration<double> wall = std::chrono::steady_clock::now() - since;
    std::printf("soak: %.2f h of audio in %.1f s; memory %" PRIu64 " -> %" PRIu64
                " KiB, descriptors %zu -> %zu, threads %zu -> %zu\n",
                hours, wall.count(), settled.memory_kib, last.memory_kib, settled.descriptors,
                last.descriptors, settled.threads, last.threads);
    const simcard::Counters counters = card_.counters();
    EXPECT_EQ(counters.frames_played, frames);
    EXPECT_EQ(counters.frames_dropped, 0U);
    EXPECT_EQ(counters.underruns, 0U);
    std::printf("soak: %" PRIu64 " frames, %" PRIu64 " positions checked\n", frames, checks);
    EXPECT_GT(checks, frames / kFormat.sample_rate);
    EXPECT_EQ(last.threads, settled.threads);
    EXPECT_EQ(last.descriptors, settled.descriptors);
    if (!kHasSanitizer) {
        EXPECT_LE(last.memory_kib, settled.memory_kib + kAllowedGrowthKib);
    }
}

}  // namespace
