#include "faults/scripted_sdk.h"

#include <algorithm>
#include <cstring>
#include <utility>

#include "fakes/fake_sdk.h"
#include "utility/uv_utilities.h"

namespace {

constexpr size_t offer_bytes = 6000;  // whole frames of both formats
constexpr size_t silence_bytes = 800'000;
constexpr unsigned seek_duration_ms = 10;

size_t frame_size_of(const nuv_audio_format& format) {
    return nuv_audio_sample_format_size(format.sample_format) * format.channel_count;
}

// 16 bit: one word of eight bits of stream and 24 of frame. 24 bit: the frame left, the stream
// right.
std::vector<uint8_t> make_pcm(const Track& track, uint64_t id) {
    std::vector<uint32_t> words;
    for (uint32_t frame = 0; !track.is_silent && frame < track.frames(); ++frame) {
        if (frame_size_of(track.format) == sizeof(uint32_t)) {
            words.push_back((static_cast<uint32_t>(id) << 24) | frame);
        } else {
            words.push_back(frame);
            words.push_back(static_cast<uint32_t>(id));
        }
    }
    std::vector<uint8_t> pcm(words.size() * sizeof(uint32_t));
    std::memcpy(pcm.data(), words.data(), pcm.size());
    return pcm;
}

uint64_t frame_number(const uint8_t* frame, size_t frame_size) {
    uint32_t words[2] = {};
    std::memcpy(words, frame, frame_size);
    return frame_size == sizeof(uint32_t) ? words[0] : (uint64_t{words[1]} << 32) | words[0];
}

}  // namespace

ScriptedSdk* ScriptedSdk::g_current = nullptr;

ScriptedSdk::ScriptedSdk(uv_loop_t* loop, audio_renderer* renderer)
    : idle_(uv_idle_new(loop, this)),
      timer_(uv_timer_new(loop, this)),
      core_(fake_sdk::core()),
      stream_delegate_(audio_renderer_get_audio_stream_delegate(renderer)),
      media_(audio_renderer_get_media_delegate(renderer)) {
    g_current = this;
    fake_sdk::on_call([](const std::string& call) { g_current->on_call(call); });
}

ScriptedSdk::~ScriptedSdk() {
    fake_sdk::on_call(nullptr);
    fake_sdk::take_calls();
    g_current = nullptr;
    uv_idle_free(idle_);
    uv_timer_free(timer_);
}

void ScriptedSdk::play(const std::vector<Track>& tracks, uint64_t position_ms) {
    for (const Track& track : tracks) {
        const uint64_t id = ++last_id_;
        streams_[id] = {track.format, make_pcm(track, id),
                        track.frames() * frame_size_of(track.format)};
        stream_delegate_.started(core_, id, {track.format, track.ms}, std::exchange(position_ms, 0),
                                 stream_delegate_.context);
    }
    reach(Point::opening);
    media_.initiate_playback(core_, NUV_PLAYBACK_STATE_PLAYING, media_.context);
}

void ScriptedSdk::pause_for(unsigned ms) {
    media_.pause_playback(core_, media_.context);
    after(ms, [](ScriptedSdk& sdk) { sdk.media_.resume_playback(sdk.core_, sdk.media_.context); });
}

void ScriptedSdk::seek_ahead(unsigned ms) {
    const Stream& first = streams_.begin()->second;
    const uint64_t delivered_ms = taken_since_seek() * 1000 / first.format.sample_rate;
    seek_ms_ = static_cast<unsigned>(delivered_ms) + ms;
    is_seeking_ = true;
    media_.seek_in_progress(core_, media_.context);
    after(seek_duration_ms, [](ScriptedSdk& sdk) { sdk.complete_seek(); });
}

void ScriptedSdk::seek_to(uint64_t position_ms, uint64_t frames) {
    auto& [id, stream] = *streams_.begin();
    media_.seek_in_progress(core_, media_.context);
    stream.size = frames * frame_size_of(stream.format);
    stream.delivered = 0;
    stream_delegate_.seeked(core_, id, position_ms, stream_delegate_.context);
}

uint64_t ScriptedSdk::taken_since_seek() const {
    const Stream& first = streams_.begin()->second;
    return first.delivered / frame_size_of(first.format);
}

void ScriptedSdk::complete_seek() {
    auto& [id, stream] = *streams_.begin();
    const size_t frame_size = frame_size_of(stream.format);
    const size_t target = size_t{stream.format.sample_rate} * seek_ms_ / 1000 * frame_size;
    skipped_ += (target - stream.delivered) / frame_size;
    stream.delivered = target;
    is_seeking_ = false;
    wake_up();
    stream_delegate_.seeked(core_, id, seek_ms_, stream_delegate_.context);
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
        const auto stream = streams_.find(id);
        if (stream == streams_.end()) {
            return;
        }
        stream->second.open = true;
        if (stream != streams_.begin() && disposals_due_ == 0 && stream->second.delivered == 0) {
            reach(Point::handing_over);
        }
    } else if (call == "notify_playback_error") {
        ++errors_;
        disposals_due_ = static_cast<unsigned>(streams_.size());
    } else if (call.starts_with("notify_playback_finished")) {
        disposals_due_ = 1;
        ended_ = call.ends_with("true");
        reach(ended_ ? Point::draining : Point::changing_format);
    }
    wake_up();
}

void ScriptedSdk::pass() {
    for (; disposals_due_ > 0 && !streams_.empty(); --disposals_due_) {
        const uint64_t id = streams_.begin()->first;
        streams_.erase(id);
        stream_delegate_.dispose(core_, id, stream_delegate_.context);
    }
    bool busy = false;
    for (auto& [id, stream] : streams_) {
        if (stream.open && !is_seeking_) {
            offer(id, stream);
            busy = busy || stream.open;
        }
    }
    if (!busy && disposals_due_ == 0) {
        uv_idle_stop(idle_);
    }
}

void ScriptedSdk::offer(uint64_t id, Stream& stream) {
    static const std::vector<uint8_t> silence(silence_bytes);
    const bool is_silent = stream.pcm.empty();
    const auto size = static_cast<size_t>(std::min<uint64_t>(
        stream.size - stream.delivered, is_silent ? silence_bytes : offer_bytes));
    const uint8_t* data = is_silent ? silence.data() : &stream.pcm[stream.delivered];
    const size_t taken =
        size == 0 ? 0 : stream_delegate_.data(core_, id, data, size, stream_delegate_.context);
    stream.delivered += taken;
    taken_ += taken / frame_size_of(stream.format);
    stream.open = taken == size;
    if (errors_ > 0) {
        return;
    }
    if (stream.delivered == stream.size) {
        stream.open = false;
        stream_delegate_.finished(core_, id, stream_delegate_.context);
        if (id == last_id_) {
            reach(Point::delivered);
        }
    } else if (!stream.open && id == streams_.begin()->first && !waited_) {
        waited_ = !is_silent;
        reach(Point::waiting);
    }
}

void ScriptedSdk::reach(Point point) {
    if (observer_) {
        observer_(point);
    }
}

void ScriptedSdk::wake_up() {
    uv_idle_start(idle_, [](uv_idle_t* idle) { static_cast<ScriptedSdk*>(idle->data)->pass(); });
}

// The step is not taken once playback has failed.
void ScriptedSdk::after(unsigned ms, void (*step)(ScriptedSdk&)) {
    next_step_ = step;
    uv_timer_start(
        timer_,
        [](uv_timer_t* timer) {
            auto& sdk = *static_cast<ScriptedSdk*>(timer->data);
            if (sdk.errors_ == 0) {
                sdk.next_step_(sdk);
            }
        },
        ms, 0);
}
