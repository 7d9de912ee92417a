// A renderer on a real loop, with the SDK, the host and the sink in the test's hands. The verbs are
// the SDK's delegate calls.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <string>
#include <thread>

#include "fakes/fake_sdk.h"
#include "media/audio_renderer_private.h"
#include "renderer/fake_sink.h"
#include "renderer/journal.h"

inline constexpr nuv_audio_format kCd{44100, 2, NUV_AUDIO_SAMPLE_FORMAT_16_BIT};
inline constexpr size_t kCdSecond = 44100UL * 2 * 2;  // bytes

class RendererTest : public testing::Test {
  protected:
    void SetUp() override {
        fake_sdk::reset();
        fake_sdk::on_call([](const std::string& call) { journal::add("sdk " + call); });
        fake_sink::reset();
        journal::host_allows_source = true;
        last_reported_position_ms = -1;
        ASSERT_EQ(uv_loop_init(&loop), 0);
        renderer = audio_renderer_new(&loop, "pcm", "mixer", "element");
        ASSERT_NE(renderer, nullptr);
        audio_renderer_set_core(renderer, core);
        streams = audio_renderer_get_audio_stream_delegate(renderer);
        media = audio_renderer_get_media_delegate(renderer);
        journal::take();
    }
    void TearDown() override {
        audio_renderer_free(renderer);
        uv_run(&loop, UV_RUN_DEFAULT);
        EXPECT_EQ(uv_loop_close(&loop), 0);
        fake_sdk::on_call(nullptr);
        journal::take();
    }

    void start(uint64_t id, nuv_audio_format format = kCd, uint64_t position_ms = 0) {
        streams.started(core, id, {format, 180000}, position_ms, streams.context);
    }
    size_t offer(uint64_t id, size_t size) {
        static const std::vector<char> pcm(16 * kCdSecond);
        return streams.data(core, id, pcm.data(), size, streams.context);
    }
    void finish(uint64_t id) { streams.finished(core, id, streams.context); }
    void seeked(uint64_t id, uint64_t ms) { streams.seeked(core, id, ms, streams.context); }
    void dispose(uint64_t id) { streams.dispose(core, id, streams.context); }

    void initiate(nuv_playback_state state = NUV_PLAYBACK_STATE_PLAYING) {
        media.initiate_playback(core, state, media.context);
    }
    void pause() { media.pause_playback(core, media.context); }
    void resume() { media.resume_playback(core, media.context); }
    void stop() { media.stop_playback(core, media.context); }
    void announce_seek() { media.seek_in_progress(core, media.context); }
    uint64_t position() { return media.get_playback_position(core, media.context); }

    // Runs the loop until the renderer has done something that begins so since the last take;
    // false when it has nothing left to wait for.
    bool run_until(const std::string& beginning) {
        const auto is_seen = [&] {
            return std::ranges::any_of(journal::g_lines, [&](const std::string& line) {
                return line.starts_with(beginning);
            });
        };
        for (int pass = 0; pass < 1000 && !is_seen() && uv_loop_alive(&loop) != 0; ++pass) {
            // One pass that does not wait runs what is due once, UV_RUN_ONCE may twice.
            std::this_thread::sleep_for(std::chrono::milliseconds(uv_backend_timeout(&loop)));
            run_due();
        }
        return is_seen();
    }
    // Runs what is due now.
    void run_due() { uv_run(&loop, UV_RUN_NOWAIT); }

    audio_renderer_state state() const { return renderer->state; }
    bool any_timer_armed() const {
        return uv_timer_is_active(&renderer->playback_nearly_finished_timer->timer) ||
               uv_timer_is_active(&renderer->playback_finished_timer->timer);
    }

    uv_loop_t loop{};
    nuv_connect* core = fake_sdk::core();
    audio_renderer* renderer = nullptr;
    nuv_audio_stream_delegate streams{};
    nuv_media_delegate media{};
};
