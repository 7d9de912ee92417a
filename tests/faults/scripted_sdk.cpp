#include "faults/scripted_sdk.h"

#include <algorithm>
#include <cstring>
#include <utility>

#include "fakes/fake_sdk.h"
#include "utility/uv_utilities.h"

namespace {

constexpr size_t kOfferBytes = 6000;  // whole frames of both formats
constexpr size_t kSilenceBytes = 800'000;
constexpr unsigned kSeekDurationMs = 10;

size_t frame_size_of(const nuv_audio_format& format) {
    return nuv_audio_sample_format_size(format.sample_format) * format.channel_count;
}

// 16 bit: one word of eight bits of stream and 24 of frame. 24 bit: the frame left, the stream
// right.
std::vector<uint8_t> make_pcm(const Clip& track, uint64_t id) {
    std::vector<uint32_t> words;
    for (uint32_t frame = 0; !track.is_silent && frame < track.frames(); ++frame) {
        if (frame_size_of(track.format) == sizeof(uint32_t)) {
            words.push_back((static_cast<uint32_t>(id) << 24) | frame);
        } else {
            words.push_back(frame);
            words.push_back(static_cast<uint32_t>(id));
        }
    }
    const auto* const bytes = reinterpret_cast<const uint8_t*>(words.data());
    return {bytes, bytes + words.size() * sizeof(uint32_t)};
}

uint64_t frame_number(const uint8_t* frame, size_t frame_size) {
    uint32_t words[2] = {};
    std::memcpy(words, frame, frame_size);
    return frame_size == sizeof(uint32_t) ? words[0] : (uint64_t{words[1]} << 32) | words[0];
}

}  // namespace

ScriptedSdk* ScriptedSdk::g_current = nullptr;

ScriptedSdk::ScriptedSdk(uv_loop_t* loop, audio_renderer* renderer)
    : m_idle(uv_idle_new(loop, this)),
      m_timer(uv_timer_new(loop, this)),
      m_core(fake_sdk::core()),
      m_stream_delegate(audio_renderer_get_audio_stream_delegate(renderer)),
      m_media(audio_renderer_get_media_delegate(renderer)) {
    g_current = this;
    fake_sdk::on_call([](const std::string& call) { g_current->on_call(call); });
}

ScriptedSdk::~ScriptedSdk() {
    fake_sdk::on_call(nullptr);
    fake_sdk::take_calls();
    g_current = nullptr;
    uv_idle_free(m_idle);
    uv_timer_free(m_timer);
}

void ScriptedSdk::play(const std::vector<Clip>& tracks) {
    for (const Clip& track : tracks) {
        const uint64_t id = ++m_last_id;
        m_streams[id] = {track.format, make_pcm(track, id),
                         track.frames() * frame_size_of(track.format)};
        m_stream_delegate.started(m_core, id, {track.format, track.ms}, 0,
                                  m_stream_delegate.context);
    }
    reach(Point::opening);
    m_media.initiate_playback(m_core, NUV_PLAYBACK_STATE_PLAYING, m_media.context);
}

void ScriptedSdk::pause_for(unsigned ms) {
    m_media.pause_playback(m_core, m_media.context);
    after(ms,
          [](ScriptedSdk& sdk) { sdk.m_media.resume_playback(sdk.m_core, sdk.m_media.context); });
}

void ScriptedSdk::seek_ahead(unsigned ms) {
    const Stream& first = m_streams.begin()->second;
    const uint64_t delivered_ms =
        first.delivered / frame_size_of(first.format) * 1000 / first.format.sample_rate;
    m_seek_ms = static_cast<unsigned>(delivered_ms) + ms;
    m_is_seeking = true;
    m_media.seek_in_progress(m_core, m_media.context);
    after(kSeekDurationMs, [](ScriptedSdk& sdk) { sdk.complete_seek(); });
}

void ScriptedSdk::complete_seek() {
    auto& [id, stream] = *m_streams.begin();
    const size_t frame_size = frame_size_of(stream.format);
    const size_t target = size_t{stream.format.sample_rate} * m_seek_ms / 1000 * frame_size;
    m_skipped += (target - stream.delivered) / frame_size;
    stream.delivered = target;
    m_is_seeking = false;
    wake_up();
    m_stream_delegate.seeked(m_core, id, m_seek_ms, m_stream_delegate.context);
}

bool ScriptedSdk::is_in_order(const std::vector<uint8_t>& pcm, size_t frame_size) {
    for (size_t at = frame_size; at < pcm.size(); at += frame_size) {
        if (frame_number(&pcm[at], frame_size) <= frame_number(&pcm[at - frame_size], frame_size)) {
            return false;
        }
    }
    return true;
}

// Called from inside the renderer: what it sets off happens on a later pass.
void ScriptedSdk::on_call(const std::string& call) {
    const std::string resume = "resume_audio_delivery ";
    if (call.starts_with(resume)) {
        const uint64_t id = std::stoull(call.substr(resume.size()));
        const auto stream = m_streams.find(id);
        if (stream == m_streams.end()) {
            return;
        }
        stream->second.open = true;
        if (stream != m_streams.begin() && m_disposals_due == 0 && stream->second.delivered == 0) {
            reach(Point::handing_over);
        }
    } else if (call == "notify_playback_error") {
        ++m_errors;
        m_disposals_due = static_cast<unsigned>(m_streams.size());
    } else if (call.starts_with("notify_playback_finished")) {
        m_disposals_due = 1;
        m_ended = call.ends_with("true");
        reach(m_ended ? Point::draining : Point::changing_format);
    }
    wake_up();
}

void ScriptedSdk::pass() {
    for (; m_disposals_due > 0 && !m_streams.empty(); --m_disposals_due) {
        const uint64_t id = m_streams.begin()->first;
        m_streams.erase(id);
        m_stream_delegate.dispose(m_core, id, m_stream_delegate.context);
    }
    bool busy = false;
    for (uint64_t id = 1; id <= m_last_id; ++id) {
        const auto is_open = [&] { return m_streams.contains(id) && m_streams.at(id).open; };
        if (is_open() && !m_is_seeking) {
            offer(id, m_streams.at(id));  // whose observer may run the loop, which may end streams
            busy = busy || is_open();
        }
    }
    if (!busy && m_disposals_due == 0) {
        uv_idle_stop(m_idle);
    }
}

void ScriptedSdk::offer(uint64_t id, Stream& stream) {
    static const std::vector<uint8_t> silence(kSilenceBytes);
    const bool is_silent = stream.pcm.empty();
    const auto size = static_cast<size_t>(std::min<uint64_t>(
        stream.size - stream.delivered, is_silent ? kSilenceBytes : kOfferBytes));
    const uint8_t* data = is_silent ? silence.data() : &stream.pcm[stream.delivered];
    const size_t taken =
        size == 0 ? 0 : m_stream_delegate.data(m_core, id, data, size, m_stream_delegate.context);
    stream.delivered += taken;
    m_taken += taken / frame_size_of(stream.format);
    stream.open = taken == size;
    if (m_errors > 0) {
        return;
    }
    if (stream.delivered == stream.size) {
        stream.open = false;
        m_stream_delegate.finished(m_core, id, m_stream_delegate.context);
        if (id == m_last_id) {
            reach(Point::delivered);
        }
    } else if (!stream.open && id == m_streams.begin()->first && !m_waited) {
        m_waited = !is_silent;
        reach(Point::waiting);
    }
}

void ScriptedSdk::reach(Point point) {
    if (m_observer) {
        m_observer(point);
    }
}

void ScriptedSdk::wake_up() {
    uv_idle_start(m_idle, [](uv_idle_t* idle) { static_cast<ScriptedSdk*>(idle->data)->pass(); });
}

// The step is not taken once playback has failed.
void ScriptedSdk::after(unsigned ms, void (*step)(ScriptedSdk&)) {
    m_next_step = step;
    uv_timer_start(
        m_timer,
        [](uv_timer_t* timer) {
            auto& sdk = *static_cast<ScriptedSdk*>(timer->data);
            if (sdk.m_errors == 0) {
                sdk.m_next_step(sdk);
            }
        },
        ms, 0);
}
