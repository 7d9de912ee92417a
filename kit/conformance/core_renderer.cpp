#include "conformance/core_renderer.h"

#include <algorithm>
#include <utility>

namespace nuvio::kit {

namespace {

constexpr size_t kRestBytes = 4096;  // as much of a refused rest is compared

std::string stream(uint64_t id) {
    return "stream " + std::to_string(id);
}

}  // namespace

void Renderer::install(nuv_connect_config& config) {
    for (uv_timer_t* timer : {&m_room, &m_end}) {
        uv_timer_init(m_loop.uv(), timer);
        timer->data = this;
    }
    config.audio_stream_delegate = {this,
                                    Delegate<&Renderer::on_started>::call,
                                    Delegate<&Renderer::on_data>::call,
                                    Delegate<&Renderer::on_metadata>::call,
                                    Delegate<&Renderer::on_finished>::call,
                                    Delegate<&Renderer::on_seeked>::call,
                                    Delegate<&Renderer::on_dispose>::call};
    config.media_delegate = {this,
                             Delegate<&Renderer::on_initiate>::call,
                             Delegate<&Renderer::on_pause>::call,
                             Delegate<&Renderer::on_resume>::call,
                             Delegate<&Renderer::on_stop>::call,
                             Delegate<&Renderer::on_seek_in_progress>::call,
                             Delegate<&Renderer::on_position>::call,
                             Delegate<&Renderer::on_volume>::call,
                             Delegate<&Renderer::on_mute>::call,
                             Delegate<&Renderer::on_state>::call,
                             Delegate<&Renderer::on_quality>::call,
                             Delegate<&Renderer::on_controls>::call,
                             Delegate<&Renderer::on_actions>::call};
    // renderer_state_delegate stays all zero: the service installs none.
}

void Renderer::close_timers() {
    for (uv_timer_t* timer : {&m_room, &m_end}) {
        uv_close(reinterpret_cast<uv_handle_t*>(timer), nullptr);
    }
}

void Renderer::note(const char* what, uint64_t id, uint64_t value) {
    if (m_loop.is_inside_a_call()) {
        m_breaches.add("not-inside", std::string("... which was \"") + what + "\"");
    }
    m_record.add({what, id, value});
}

// ---- Streams ------------------------------------------------------------------------------------

Track* Renderer::track(uint64_t id, const char* what) {
    const auto found = m_tracks.find(id);
    if (found == m_tracks.end()) {
        m_breaches.add("streams", std::string(what) + " of " + stream(id) +
                                      ", which was not started or is disposed of");
        return nullptr;
    }
    return &found->second;
}

void Renderer::on_started(uint64_t id, nuv_audio_stream_info info, uint64_t position_ms) {
    note("started", id, position_ms);
    const nuv_audio_format& format = info.format;
    if (format.sample_rate == 0 || format.channel_count == 0 ||
        nuv_audio_sample_format_size(format.sample_format) == 0) {
        m_breaches.add("streams", stream(id) + " has a format that cannot be played");
    }
    if (m_tracks.empty()) {
        expect("a first stream", {Phase::stopped});
    }
    Track track;
    track.info = info;
    track.start_ms = position_ms;
    if (!m_tracks.emplace(id, std::move(track)).second) {
        m_breaches.add("streams", stream(id) + " is started twice");
    }
    if (m_end_armed && m_next_seen_ms == 0 && next() != 0) {
        m_next_seen_ms = uv_now(m_loop.uv());
    }
    hand_over();
}

size_t Renderer::on_data(uint64_t id, const void* data, size_t size) {
    Track* const offered = track(id, "data");
    if (offered == nullptr) {
        return 0;
    }
    if (size == 0 || size % offered->frame_bytes() != 0) {
        m_breaches.add("frames", std::to_string(size) + " bytes are offered, no whole frames");
        return 0;
    }
    if (offered->finished) {
        m_breaches.add("streams", "data of " + stream(id) + ", which has finished");
    }
    if (offered->refused) {
        m_breaches.add("delivery",
                       stream(id) + " is offered on after a short count, delivery not resumed");
        return 0;
    }
    const auto* const bytes = static_cast<const std::byte*>(data);
    const size_t known = std::min(offered->rest.size(), size);
    if (!std::equal(bytes, bytes + known, offered->rest.begin())) {
        m_breaches.add("rest", "what was refused of " + stream(id) + " does not come again first");
    }
    size_t taken = 0;
    if (offered->open && id == m_playing && m_phase == Phase::playing) {
        if (std::exchange(m_fails, false)) {
            fail();
            return 0;
        }
        uint64_t frames = std::min<uint64_t>(size / offered->frame_bytes(), m_allowance);
        if (m_at_random && m_random() % 3 == 0) {
            frames = m_random() % (frames + 1);
        }
        m_allowance -= m_allowance == UINT64_MAX ? 0 : frames;
        taken = frames * offered->frame_bytes();
    } else if (offered->open) {
        expect("data", {Phase::playing, Phase::paused});
    }
    offered->taken += taken;
    m_taken += taken;
    offered->rest.assign(bytes + taken, bytes + std::min(size, taken + kRestBytes));
    if (taken < size) {
        offered->open = false;
        offered->refused = true;
        if (m_resumes) {
            uv_timer_start(
                &m_room, [](uv_timer_t* due) { static_cast<Renderer*>(due->data)->room(); }, 1, 0);
        }
    }
    return taken;
}

void Renderer::on_metadata(uint64_t id, const nuv_stream_metadata* metadata) {
    note("metadata", id);
    track(id, "metadata");
    if (metadata == nullptr || metadata->title == nullptr || metadata->artist == nullptr ||
        metadata->album == nullptr || metadata->album_art_url == nullptr) {
        m_breaches.add("streams", "metadata without one of its texts");
    }
}

void Renderer::on_finished(uint64_t id) {
    note("finished", id);
    if (Track* const done = track(id, "the end")) {
        if (!done->rest.empty()) {
            m_breaches.add("delivery", stream(id) + " ends with its last offer refused");
        }
        done->finished = true;
        if (id == active()) {
            expect("the end of a stream", {Phase::playing, Phase::paused, Phase::stopped});
            arm_end();
        }
    }
}

void Renderer::on_seeked(uint64_t id, uint64_t position_ms) {
    note("seeked", id, position_ms);
    expect("the end of a seek", {Phase::playing_seeking, Phase::paused_seeking});
    m_phase = m_phase == Phase::paused_seeking ? Phase::paused : Phase::playing;
    if (Track* const moved = track(id, "a seek")) {
        moved->finished = false;
        moved->start_ms = position_ms;
        moved->taken = 0;
        moved->rest.clear();
    }
    // The card has been emptied: it has room.
    uv_timer_start(
        &m_room, [](uv_timer_t* due) { static_cast<Renderer*>(due->data)->room(); }, 1, 0);
}

void Renderer::on_dispose(uint64_t id) {
    note("dispose", id);
    if (track(id, "the disposal") == nullptr) {
        return;
    }
    if (id == m_playing) {
        if (id != next()) {
            m_breaches.add("disposal", stream(id) + " is disposed of while it plays");
        }
        m_playing = id == next() ? active() : 0;
    }
    m_tracks.erase(id);
}

// ---- Playback -----------------------------------------------------------------------------------

void Renderer::expect(const char* what, std::initializer_list<Phase> allowed) {
    static constexpr const char* kNames[] = {"stopped", "playing", "seeking", "paused",
                                             "seeking while paused"};
    if (std::find(allowed.begin(), allowed.end(), m_phase) == allowed.end()) {
        m_breaches.add("states", std::string(what) + " comes while the renderer is " +
                                     kNames[static_cast<int>(m_phase)]);
    }
}

void Renderer::on_initiate(State initial) {
    note("initiate", active(), initial);
    expect("initiate", {Phase::stopped});
    if (m_tracks.empty()) {
        m_breaches.add("streams", "playback is initiated before a stream was started");
        return;
    }
    const uint64_t id = m_playing = active();
    m_phase = initial == NUV_PLAYBACK_STATE_PAUSED ? Phase::paused : Phase::playing;
    if (m_phase == Phase::playing) {
        open(id);
    }
    tell_initiated(id);
}

void Renderer::on_pause() {
    note("pause");
    expect("pause", {Phase::playing});
    if (m_playing != 0) {
        m_tracks[m_playing].open = false;
    }
    uv_timer_stop(&m_end);
    m_phase = Phase::paused;
    tell(nuv_connect_notify_playback_paused, "paused");
}

void Renderer::on_resume() {
    note("resume");
    expect("resume", {Phase::paused});
    m_phase = Phase::playing;
    open(m_playing);
    if (m_end_armed) {
        arm_end();
    }
    tell(nuv_connect_notify_playback_resumed, "resumed");
}

void Renderer::on_stop() {
    note("stop");
    expect("stop", {Phase::playing, Phase::playing_seeking, Phase::paused, Phase::paused_seeking});
    close();
    tell(nuv_connect_notify_playback_stopped, "stopped");
}

void Renderer::on_seek_in_progress() {
    note("seek");
    expect("seek", {Phase::playing, Phase::paused});
    if (m_playing != active() && m_playing != 0) {
        m_tracks[m_playing].open = false;
        m_playing = active();
    }
    uv_timer_stop(&m_end);
    m_end_armed = false;
    m_phase = m_phase == Phase::paused ? Phase::paused_seeking : Phase::playing_seeking;
}

uint64_t Renderer::on_position() {
    if (m_phase == Phase::stopped || m_tracks.empty()) {
        return 0;
    }
    const Track& track = m_tracks.begin()->second;
    return track.start_ms +
           track.taken / track.frame_bytes() * 1000 / track.info.format.sample_rate;
}

void Renderer::on_volume(uint32_t volume) {
    note("volume", 0, volume);
}
void Renderer::on_mute(bool muted) {
    note("mute", 0, muted ? 1 : 0);
}
void Renderer::on_state(State state) {
    note("state", 0, state);
}
void Renderer::on_quality(nuv_audio_quality) {}
void Renderer::on_controls(nuv_loop_mode mode, bool shuffle) {
    note("loop mode", 0, mode);
    note("shuffle", 0, shuffle ? 1 : 0);
}
void Renderer::on_actions(bool next) {
    m_next_available = next;
}

// ---- The card -----------------------------------------------------------------------------------

void Renderer::resume_delivery() {
    room();
}

void Renderer::room() {
    if (m_phase == Phase::playing && m_playing != 0) {
        open(m_playing);
    }
}

void Renderer::open(uint64_t id) {
    const auto found = m_tracks.find(id);
    if (found != m_tracks.end() && !std::exchange(found->second.open, true)) {
        found->second.refused = false;
        tell([id](nuv_connect* core) { return nuv_connect_resume_audio_delivery(core, id); },
             "resumed delivery");
    }
}

void Renderer::arm_end() {
    m_end_armed = true;
    if (m_phase != Phase::playing) {
        return;
    }
    m_end_due_ms = uv_now(m_loop.uv()) + kTailMs;
    m_next_seen_ms = next() == 0 ? 0 : uv_now(m_loop.uv());
    uv_timer_start(
        &m_end, [](uv_timer_t* due) { static_cast<Renderer*>(due->data)->end_of_track(); }, kTailMs,
        0);
    hand_over();
}

// In the interval before the end of a track the next one of the same format flows already.
void Renderer::hand_over() {
    if (m_phase != Phase::playing || !m_end_armed || next() == 0 || m_playing != active()) {
        return;
    }
    const nuv_audio_format& one = m_tracks[active()].info.format;
    const nuv_audio_format& other = m_tracks[next()].info.format;
    if (one.sample_rate == other.sample_rate && one.channel_count == other.channel_count &&
        one.sample_format == other.sample_format) {
        m_playing = next();
        open(m_playing);
    }
}

void Renderer::end_of_track() {
    note("end of track", active());
    m_end_armed = false;
    const uint64_t following = next();
    if (following == 0 && m_next_available) {
        m_breaches.add("next-early", "a next track is available, but none started within " +
                                         std::to_string(kTailMs) + " ms of the end of the data");
    }
    if (following != 0) {
        const auto before = static_cast<unsigned>(m_end_due_ms - m_next_seen_ms);
        m_earliest_next_ms =
            m_earliest_next_ms == 0 ? before : std::min(m_earliest_next_ms, before);
    }
    tell(
        [&](nuv_connect* core) {
            return nuv_connect_notify_playback_finished(core, following == 0);
        },
        "finished");
    if (following == 0) {
        close();
        return;
    }
    if (std::exchange(m_playing, following) != following) {
        open(following);
    }
    tell_initiated(following);
}

// The track has begun; one that was delivered whole by then comes to its end by itself.
void Renderer::tell_initiated(uint64_t id) {
    const nuv_audio_format format = m_tracks[id].info.format;
    tell(
        [format](nuv_connect* core) { return nuv_connect_notify_playback_initiated(core, format); },
        "initiated");
    if (m_tracks[id].finished) {
        arm_end();
    }
}

void Renderer::close() {
    if (const auto found = m_tracks.find(m_playing); found != m_tracks.end()) {
        found->second.open = false;
    }
    m_playing = 0;
    uv_timer_stop(&m_end);
    m_end_armed = false;
    m_phase = Phase::stopped;
}

void Renderer::fail() {
    close();
    tell(nuv_connect_notify_playback_error, "failed");
}

void Renderer::tell(const std::function<nuv_error(nuv_connect*)>& notification, const char* what) {
    const nuv_error error = m_loop.call(notification);
    if (error != NUV_ERROR_OK) {
        m_breaches.add("notices", std::string("told \"") + what + "\" the core answers " +
                                      nuv_error_to_string(error));
    }
}

}  // namespace nuvio::kit
