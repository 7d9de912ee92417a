#include "renderer/fake_sink.h"

#include <algorithm>
#include <string>

#include "renderer/journal.h"

struct audio_sink {
    void* listener = nullptr;
    audio_sink_space_available_callback space_available = nullptr;
};

namespace fake_sink {
namespace {
State g_state;
audio_sink g_sink;
}  // namespace

void reset() {
    g_state = State();
    g_sink = audio_sink();
}
State& state() {
    return g_state;
}
void signal_space() {
    g_state.waits_for_space = false;
    g_sink.space_available(&g_sink, g_sink.listener);
}

}  // namespace fake_sink

using namespace fake_sink;

audio_sink* audio_sink_new(uv_loop_t*, const char*, const char*, const char*) {
    return g_state.exists ? &g_sink : nullptr;
}
void audio_sink_free(audio_sink* self) {
    audio_sink_close(self);
}
void audio_sink_set_event_listener(audio_sink* self, void* listener,
                                   audio_sink_space_available_callback space_available,
                                   audio_sink_volume_changed_callback,
                                   audio_sink_mute_state_changed_callback) {
    *self = {listener, space_available};
}
nuv_audio_quality audio_sink_get_maximum_supported_audio_quality(audio_sink*) {
    return NUV_AUDIO_QUALITY_HI_RES_LEVEL_1;
}

bool audio_sink_is_open(const audio_sink*) {
    return g_state.open;
}
bool audio_sink_open(audio_sink*, const nuv_audio_format* format) {
    journal::add("sink open " + std::to_string(format->sample_rate));
    g_state.open = g_state.can_open;
    g_state.format = *format;
    return g_state.open;
}
void audio_sink_close(audio_sink*) {
    if (g_state.open) {
        journal::add("sink close");
    }
    g_state.open = false;
    g_state.waits_for_space = false;
}
size_t audio_sink_write(audio_sink*, const void*, size_t size, bool* ok) {
    const size_t room = g_state.take ? g_state.take(size) : g_state.room;
    *ok = g_state.can_write && g_state.open;
    const size_t taken = *ok ? std::min(size, room) : 0;
    g_state.waits_for_space = g_state.waits_for_space || (*ok && taken < size);
    journal::add("sink write " + std::to_string(taken));
    return taken;
}
bool audio_sink_pause(audio_sink*) {
    return true;
}
bool audio_sink_resume(audio_sink*) {
    return true;
}
bool audio_sink_flush(audio_sink*) {
    g_state.buffered_frames = 0;
    return true;
}
bool audio_sink_drain(audio_sink*) {
    journal::add("sink drain");
    g_state.buffered_frames = 0;
    return true;
}
uint64_t audio_sink_get_buffered_frame_count(audio_sink*, bool* ok) {
    *ok = g_state.buffered_is_known;
    return *ok ? g_state.buffered_frames : 0;
}

uint32_t audio_sink_get_volume(audio_sink*) {
    return 50;
}
void audio_sink_set_volume(audio_sink*, uint32_t) {}
bool audio_sink_get_mute_state(audio_sink*) {
    return false;
}
void audio_sink_set_mute_state(audio_sink*, bool) {}
