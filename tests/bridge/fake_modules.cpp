#include "bridge/fake_modules.h"

#include <algorithm>
#include <deque>
#include <mutex>
#include <thread>
#include <utility>

#include "advertising/avahi_advertiser.h"
#include "local_config/http_server.h"
#include "media/audio_renderer.h"
#include "utility/check.h"
#include "utility/uv_utilities.h"

namespace fake_modules {
namespace {

std::mutex g_mutex;
Setup g_setup;
std::vector<std::string> g_journal;
std::deque<Track> g_tracks;
size_t g_questions = 0;
Track g_playing;  // loop's thread: the answer given last

}  // namespace

void reset(const Setup& setup) {
    const std::scoped_lock lock(g_mutex);
    g_setup = setup;
    g_journal.clear();
    g_tracks.clear();
    g_questions = 0;
}

std::vector<std::string> journal() {
    const std::scoped_lock lock(g_mutex);
    return g_journal;
}

void note(const std::string& line) {
    const std::scoped_lock lock(g_mutex);
    g_journal.push_back(line);
}

void play(const std::vector<Track>& tracks) {
    const std::scoped_lock lock(g_mutex);
    g_tracks.assign(tracks.begin(), tracks.end());
}

void play_nothing() {
    play({});
}

size_t questions() {
    const std::scoped_lock lock(g_mutex);
    return g_questions;
}

}  // namespace fake_modules

using namespace fake_modules;

// ---- Renderer
// ------------------------------------------------------------------------------------

struct audio_renderer {
    std::thread::id thread = std::this_thread::get_id();
    uv_timer_t* ticker;
    std::function<void()> on_tick;
};

audio_renderer* audio_renderer_new(uv_loop_t* loop, const char* output_device,
                                   const char* volume_device, const char* volume_element) {
    note(std::string("renderer new ") + output_device + " " + volume_device + " " + volume_element);
    const std::scoped_lock lock(g_mutex);
    if (g_setup.no_renderer) {
        return nullptr;
    }
    auto* self = new audio_renderer{.ticker = nullptr, .on_tick = g_setup.on_tick};
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

void audio_renderer_set_core(audio_renderer*, nuv_connect*) {
    note("renderer set_core");
}
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
    const std::scoped_lock lock(g_mutex);
    ++g_questions;
    if (g_tracks.empty()) {
        return nullptr;
    }
    g_playing = g_tracks.front();
    if (g_tracks.size() > 1) {
        g_tracks.pop_front();
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

// ---- HTTP server, advertiser
// ---------------------------------------------------------------------

struct http_server {
    uv_async_t* handle;
};

http_server* http_server_new(uv_loop_t* loop, uint16_t port, device_info*, audio_renderer*) {
    note("http new " + std::to_string(port));
    return new http_server{uv_async_new(loop, nullptr, nullptr)};
}
void http_server_free(http_server* self) {
    note("http free");
    uv_async_free(self->handle);
    delete self;
}
void http_server_set_core(http_server*, nuv_connect*) {
    note("http set_core");
}
nuv_local_config_server_delegate http_server_get_local_config_server_delegate(http_server* self) {
    return {self, nullptr, nullptr};
}

struct avahi_advertiser {};

avahi_advertiser* avahi_advertiser_new(uv_loop_t*, device_info*, http_server*) {
    note("advertiser new");
    return new avahi_advertiser;
}
void avahi_advertiser_free(avahi_advertiser* self) {
    note("advertiser free");
    delete self;
}
void avahi_advertiser_set_core(avahi_advertiser*, nuv_connect*) {
    note("advertiser set_core");
}
nuv_advertising_delegate avahi_advertiser_get_advertising_delegate(avahi_advertiser* self) {
    return {self, nullptr, nullptr};
}
