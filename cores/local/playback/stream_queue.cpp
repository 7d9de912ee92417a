#include "local/playback/stream_queue.h"

#include <algorithm>
#include <utility>

namespace local_core {

namespace {

// Of each stream: a radio has a new title every few minutes.
constexpr size_t kMaxTexts = 16;

constexpr uint64_t kHandOverMs = 500;

}  // namespace

StreamQueue::StreamQueue(const PlayerDelegates& delegates, Control& control,
                         std::shared_ptr<const Logger> logger, std::function<void()> on_change)
    : m_delegates(delegates),
      m_control(control),
      m_crew(std::move(on_change), delegates.output, std::move(logger)) {}

StreamQueue::~StreamQueue() = default;

// ---- From the opening to the disposal ---------------------------------------------------------

void StreamQueue::open(Role role, const Track& track, TrackPlace place) {
    in(role).reset(new Stream(m_crew.open(track), place));
}

StreamQueue::Start StreamQueue::start(Role role) {
    Stream& stream = *in(role);
    switch (stream.m_pipe->opening()) {
        case TrackPipe::Opening::in_progress:
            return Start::under_way;
        case TrackPipe::Opening::ready:
            announce(stream);
            return Start::announced;
        case TrackPipe::Opening::failed:
            break;
    }
    return Start::failed;
}

void StreamQueue::announce(Stream& stream) {
    const TrackInfo& info = stream.info();
    stream.m_texts = {stream.m_pipe->texts()};
    const TrackTexts& texts = stream.m_texts.back();
    const nuv_audio_stream_delegate& audio = m_delegates.audio;
    stream.m_id = ++m_last_stream_id;
    m_control.add_texts(stream.m_id, &texts);
    audio.started(m_delegates.core, stream.m_id, {info.format, info.duration_ms()}, 0,
                  audio.context);
    const nuv_stream_metadata metadata = texts.view();
    audio.metadata(m_delegates.core, stream.m_id, &metadata, audio.context);
}

void StreamQueue::withdraw(Stream& stream) {
    if (!stream.is_announced()) {
        return;
    }
    m_delegates.audio.dispose(m_delegates.core, stream.m_id, m_delegates.audio.context);
    m_control.remove_texts(stream.m_id);
    stream.m_id = 0;
    stream.m_is_open = false;
    stream.m_is_finished = false;
}

void StreamQueue::release(StreamPtr stream) {
    withdraw(*stream);
    give_back_block(*stream);
}

void StreamQueue::conclude(Stream& stream) {
    if (stream.has_flowed()) {
        m_last_played = {stream.place(), stream.texts().title,
                         stream.m_pipe->conclude(stream.m_is_played_out)};
        ++m_played_count;
    }
}

bool StreamQueue::dispose(Role role) {
    StreamPtr stream = std::exchange(in(role), nullptr);
    if (!stream) {
        return false;
    }
    if (role == Role::current) {
        conclude(*stream);
    }
    release(std::move(stream));
    return true;
}

bool StreamQueue::dispose_retired() {
    if (!m_retired) {
        return false;
    }
    conclude(*m_retired);
    release(std::exchange(m_retired, nullptr));
    return true;
}

bool StreamQueue::dispose_current_keeping_next() {
    withdraw(*m_next);
    dispose(Role::current);
    m_current = std::exchange(m_next, nullptr);
    return true;
}

bool StreamQueue::advance() {
    if (!m_next || !m_next->is_announced()) {
        return false;
    }
    m_retired = std::exchange(m_current, std::exchange(m_next, nullptr));
    return true;
}

// ---- Delivery ---------------------------------------------------------------------------------

void StreamQueue::give_back_block(Stream& stream) {
    if (stream.m_block.data != nullptr) {
        stream.m_pipe->give_back(std::exchange(stream.m_block, {}));
    }
    stream.m_offered_bytes = 0;
}

StreamQueue::Offered StreamQueue::offer(Role role, size_t most_bytes) {
    Stream& stream = *in(role);
    const nuv_audio_stream_delegate& audio = m_delegates.audio;
    if (!stream.m_is_open || stream.m_is_finished) {
        return {};
    }
    const size_t wanted = role == Role::next ? std::min(most_bytes, wanted_of_next()) : most_bytes;
    if (wanted == 0) {
        return {};
    }
    if (stream.m_block.data == nullptr) {
        switch (stream.m_pipe->take(&stream.m_block)) {
            case TrackPipe::Taken::wait:
                return {};
            case TrackPipe::Taken::end:
                return {0, true, true};
            case TrackPipe::Taken::block:
                break;
        }
    }
    if (role == Role::next && stream.m_taken_bytes == 0) {
        m_hand_over_position_ms = heard_position_ms();
        m_hand_over_time = std::chrono::steady_clock::now();
    }
    const size_t left = std::min(stream.m_block.size_bytes - stream.m_offered_bytes, wanted);
    stream.m_is_open = false;  // unless all is taken, or the renderer opens it again meanwhile
    const size_t taken =
        std::min(audio.data(m_delegates.core, stream.m_id,
                            stream.m_block.data + stream.m_offered_bytes, left, audio.context),
                 left);
    stream.m_pipe->add_taken(stream.m_block.data + stream.m_offered_bytes, taken);
    stream.m_has_flowed |= taken > 0;
    stream.m_offered_bytes += taken;
    stream.m_taken_bytes += taken;
    stream.m_is_open |= taken == left;
    if (stream.m_offered_bytes == stream.m_block.size_bytes) {
        give_back_block(stream);
    }
    const bool has_more = stream.m_is_open;
    renew_texts(stream);
    return {taken, has_more, false, taken < left};
}

void StreamQueue::renew_texts(Stream& stream) {
    auto texts = stream.m_pipe->take_new_texts();
    if (!texts) {
        return;
    }
    ++m_text_count;
    stream.m_texts.push_back(std::move(*texts));
    m_control.remove_texts(stream.m_id);
    m_control.add_texts(stream.m_id, &stream.m_texts.back());
    if (stream.m_texts.size() > kMaxTexts) {
        stream.m_texts.pop_front();
    }
    const nuv_stream_metadata metadata = stream.m_texts.back().view();
    m_delegates.audio.metadata(m_delegates.core, stream.m_id, &metadata, m_delegates.audio.context);
}

size_t StreamQueue::wanted_of_next() const {
    const TrackInfo& info = m_next->info();
    const uint64_t most = kHandOverMs * info.format.sample_rate / 1000 * info.frame_bytes;
    return static_cast<size_t>(most - std::min(most, m_next->m_taken_bytes));
}

void StreamQueue::finish(Role role) {
    Stream& stream = *in(role);
    stream.m_is_finished = true;
    m_delegates.audio.finished(m_delegates.core, stream.m_id, m_delegates.audio.context);
}

nuv_error StreamQueue::open_delivery(uint64_t stream_id) {
    for (const StreamPtr* stream : {&m_current, &m_next, &m_retired}) {
        if (*stream && (*stream)->m_id == stream_id && stream_id != 0) {
            (*stream)->m_is_open = true;
            return NUV_ERROR_OK;
        }
    }
    return NUV_ERROR_NOT_FOUND;
}

// ---- Places in the current track --------------------------------------------------------------

void StreamQueue::seek_current(uint64_t frame) {
    Stream& stream = *m_current;
    give_back_block(stream);
    stream.m_is_finished = false;
    stream.m_has_flowed = true;
    stream.m_taken_bytes = 0;
    stream.m_pipe->seek(frame);
}

std::optional<uint64_t> StreamQueue::seek_result() {
    return m_current->m_pipe->seek_result();
}

void StreamQueue::report_seeked(uint64_t position_ms) {
    m_current->m_begin_ms = position_ms;
    m_delegates.audio.seeked(m_delegates.core, m_current->m_id, position_ms,
                             m_delegates.audio.context);
}

std::optional<std::chrono::steady_clock::time_point> StreamQueue::give_up_hanging(
    std::chrono::steady_clock::duration patience) {
    std::optional<std::chrono::steady_clock::time_point> next_look;
    for (const StreamPtr* stream : {&m_current, &m_next}) {
        const auto since = *stream ? (*stream)->m_pipe->waiting_since() : std::nullopt;
        if (!since) {
            continue;
        }
        const auto until = *since + patience;
        if (until <= std::chrono::steady_clock::now()) {
            (*stream)->m_pipe->give_up();
            next_look = std::chrono::steady_clock::now();
        } else {
            next_look = std::min(next_look.value_or(until), until);
        }
    }
    return next_look;
}

// The renderer takes the next stream's share of the output's buffer for the current one's: its
// answer is too small by that, and 0 where that leaves nothing. The time since tells it then.
uint64_t StreamQueue::heard_position_ms() const {
    if (!m_current->m_has_flowed) {
        return 0;  // PulseAudio's plug-in fails at a delay of nothing at all
    }
    const uint64_t told =
        m_delegates.media.get_playback_position(m_delegates.core, m_delegates.media.context);
    if (!is_handing_over()) {
        return told;
    }
    const TrackInfo& next = m_next->info();
    const auto since = std::chrono::duration_cast<std::chrono::milliseconds>(
        std::chrono::steady_clock::now() - m_hand_over_time);
    return told > 0 ? told + next.position_ms(m_next->m_taken_bytes / next.frame_bytes)
                    : m_hand_over_position_ms + static_cast<uint64_t>(since.count());
}

uint64_t StreamQueue::delivered_position_ms() const {
    const TrackInfo& info = m_current->info();
    return m_current->m_begin_ms + info.position_ms(m_current->m_taken_bytes / info.frame_bytes);
}

}  // namespace local_core
