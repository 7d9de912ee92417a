#include "bridge/fake_modules.h"

#include <thread>

#include "advertising/avahi_advertiser.h"
#include "local_config/http_server.h"
#include "media/audio_renderer.h"
#include "utility/check.h"
#include "utility/uv_utilities.h"

namespace fake_modules {
namespace {

std::mutex g_mutex;
State g_state;
Song g_playing;  // loop's thread: the answer given last

void note(const std::string& line) {
    state()->journal.push_back(line);
}

}  // namespace

Locked state() {
    return {std::unique_lock(g_mutex), &g_state};
}

void reset() {
    *state().state = State();
}

}  // namespace fake_modules

using namespace fake_modules;

struct audio_renderer {
    std::thread::id thread = std::this_thread::get_id();
    uv_timer_t* ticker;
    std::function<void()> on_tick;
};

audio_renderer* audio_renderer_new(uv_loop_t* loop, const char* output_device,
                                   const char* volume_device, const char* volume_element) {
    note(std::string("renderer new ") + output_device + " " + volume_device + " " + volume_element);
    const Locked setup = state();
    if (setup->no_renderer) {
        return nullptr;
    }
    auto* self = new audio_renderer{.ticker = nullptr, .on_tick = setup->on_tick};
    self->ticker = uv_timer_new(loop, self);
    if (self->on_tick) {
        const auto tick = [](uv_timer_t* timer) {
            static_cast<audio_renderer*>(timer->data)->on_tick();
        };
        uv_timer_start(self->ticker, tick, 1, 1);
    }
    return self;
}

void audio_renderer_free(audio_renderer* self) {
    note("renderer free");
    NUV_CHECK(self->thread == std::this_thread::get_id());
    uv_timer_free(self->ticker);
    delete self;
}

void audio_renderer_set_core(audio_renderer*, nuv_connect*) {}
nuv_audio_stream_delegate audio_renderer_get_audio_stream_delegate(audio_renderer* self) {
    return {self, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr};
}
nuv_media_delegate audio_renderer_get_media_delegate(audio_renderer* self) {
    nuv_media_delegate delegate{};
    delegate.context = self;
    return delegate;
}
nuv_audio_quality audio_renderer_get_maximum_supported_audio_quality(audio_renderer*) {
    return NUV_AUDIO_QUALITY_HI_RES_LEVEL_2;
}

nuv_stream_metadata* callmetadata(nuv_connect*, audio_renderer* self) {
    NUV_CHECK(self->thread == std::this_thread::get_id());
    const Locked playing = state();
    ++playing->questions;
    if (playing->tracks.empty()) {
        return nullptr;
    }
    g_playing = playing->tracks.front();
    if (playing->tracks.size() > 1) {
        playing->tracks.pop_front();
    }
    return new nuv_stream_metadata{g_playing.title.c_str(), "Artist", "Album", ""};
}
void audio_renderer_get_playing_format(nuv_audio_format* out, audio_renderer* self) {
    NUV_CHECK(self->thread == std::this_thread::get_id());
    *out = g_playing.format;
}
uint64_t audio_renderer_get_playing_duration(audio_renderer* self) {
    NUV_CHECK(self->thread == std::this_thread::get_id());
    return g_playing.duration_ms;
}

// What is made, set up and freed beside the renderer, and does nothing.
#define NUV_IDLE_MODULE(module, name, delegate, getter) \
    struct module {};                                   \
    void module##_free(module* self) {                  \
        note(name " free");                             \
        delete self;                                    \
    }                                                   \
    void module##_set_core(module*, nuv_connect*) {}    \
    delegate getter(module* self) {                     \
        return {self, nullptr, nullptr};                \
    }
NUV_IDLE_MODULE(http_server, "http", nuv_local_config_server_delegate,
                http_server_get_local_config_server_delegate)
NUV_IDLE_MODULE(avahi_advertiser, "advertiser", nuv_advertising_delegate,
                avahi_advertiser_get_advertising_delegate)

http_server* http_server_new(uv_loop_t*, uint16_t port, device_info*, audio_renderer*) {
    note("http new " + std::to_string(port));
    return new http_server;
}
void http_server_add_own_names(http_server*, std::string_view) {}
avahi_advertiser* avahi_advertiser_new(uv_loop_t*, device_info*, http_server*) {
    note("advertiser new");
    return new avahi_advertiser;
}
