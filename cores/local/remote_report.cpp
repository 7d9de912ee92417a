#include "local/remote_report.h"

#include <algorithm>
#include <chrono>
#include <utility>

#include "local/texts/file_url.h"

namespace local_core {

namespace {

constexpr uint64_t kTellingPauseMs = 100;
constexpr uint64_t kPositionPauseMs = 10'000;

uint64_t unix_ms() {
    const auto now = std::chrono::system_clock::now().time_since_epoch();
    return static_cast<uint64_t>(
        std::max<int64_t>(std::chrono::duration_cast<std::chrono::milliseconds>(now).count(), 0));
}

NamedTrack named(const Track& track) {
    const std::string url = track.remote ? track.location : file_url_from_path(track.location);
    return {nuvio::with_section(url, track.section),
            track.title,
            track.artist,
            track.album,
            track.album_art_url,
            track.duration_ms};
}

}  // namespace

RemoteReport::RemoteReport(uv_loop_t* loop, HelloMessage device, const Player& player,
                           std::function<void()> wake)
    : m_loop(loop),
      m_device(std::move(device)),
      m_player(player),
      m_wake(std::move(wake)),
      m_timer(make_loop_handle<uv_timer_t>(
          this, [loop](uv_timer_t* timer) { return uv_timer_init(loop, timer); })) {}

void RemoteReport::end() {
    m_told.reset();
    uv_timer_stop(m_timer.get());
}

void RemoteReport::tell(Link& link, uint64_t connection, const PlaybackSettings& settings,
                        const PlayerView& view) {
    const uint64_t now_ms = uv_now(m_loop);
    const bool is_first = !m_told;
    const bool plays = view.state == NUV_PLAYBACK_STATE_PLAYING;
    const bool is_position_due = plays && now_ms >= m_told_ms + kPositionPauseMs;
    if (!is_first && !is_position_due && m_told->view == view && m_told->settings == settings) {
        return;
    }
    if (!is_first && now_ms < m_told_ms + kTellingPauseMs) {
        set_timer(m_told_ms + kTellingPauseMs);
        return;
    }
    if (is_first || m_told->settings.device_name != settings.device_name) {
        link.put(connection, Link::Slot::hello, hello_text(settings));
    }
    if (is_first || m_told->view.list_revision != view.list_revision) {
        link.put(connection, Link::Slot::queue, queue_text(std::nullopt));
    }
    if (is_first || m_told->view.stream_id != view.stream_id ||
        m_told->view.text_count != view.text_count) {
        link.put(connection, Link::Slot::track, track_text());
    }
    const auto& played = m_player.last_played();
    if (played && m_player.has_played_last() &&
        (is_first || m_told->view.played_count != view.played_count)) {
        link.put(connection, Link::Slot::played,
                 write_played(played->place.track, text_of(played->verdict)));
    }
    const uint64_t position_ms = m_player.position_ms();
    link.put(connection, Link::Slot::state, write_state(view, settings, position_ms, unix_ms()));
    m_told = Told{settings, view};
    m_told_ms = now_ms;
    if (plays) {
        set_timer(now_ms + kPositionPauseMs);
    } else {
        uv_timer_stop(m_timer.get());
    }
}

void RemoteReport::set_timer(uint64_t due_ms) {
    const uint64_t now_ms = uv_now(m_loop);
    uv_timer_start(
        m_timer.get(), [](uv_timer_t* timer) { static_cast<RemoteReport*>(timer->data)->m_wake(); },
        due_ms - std::min(due_ms, now_ms), 0);
}

std::string RemoteReport::hello_text(const PlaybackSettings& settings) const {
    HelloMessage hello = m_device;
    hello.name = settings.device_name;
    hello.commands_per_second = Link::kCommandsASecond;
    hello.command_burst = Link::kCommandBurst;
    hello.queue_tracks = Session::kMaxTracks;
    return write_hello(hello);
}

// None: from the beginning, or from the current track where that would leave it out.
std::string RemoteReport::queue_text(std::optional<size_t> first) const {
    const Session* const session = m_player.session();
    if (session == nullptr) {
        return QueueMessage(0, 0, 0).text();
    }
    const std::vector<size_t>& list = session->list();
    const size_t begin = std::min(first.value_or(0), list.size());
    QueueMessage message(session->revision(), list.size(), begin);
    size_t end = begin;
    while (end < list.size() && message.add(list[end], named(session->track(list[end])))) {
        ++end;
    }
    const auto current = std::find(list.begin(), list.end(), session->current());
    const auto current_place = static_cast<size_t>(current - list.begin());
    return first || current_place < end ? message.text() : queue_text(current_place);
}

std::string RemoteReport::track_text() const {
    const std::optional<HeardTrack> heard = m_player.heard();
    if (!heard) {
        return write_track(nullptr);
    }
    const TrackInfo& info = *heard->info;
    const TrackTexts& texts = *heard->texts;
    const TrackMessage track{heard->track,  texts.title,         texts.artist,
                             texts.album,   texts.album_art_url, info.duration_ms(),
                             info.seekable, info.format,         info.conversion()};
    return write_track(&track);
}

}  // namespace local_core
