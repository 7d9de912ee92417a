#include "local/remote_control.h"

#include <algorithm>
#include <chrono>
#include <iterator>
#include <system_error>
#include <utility>

#include "local/network/url.h"
#include "local/remote_settings.h"
#include "local/texts/display_text.h"
#include "local/texts/file_url.h"

namespace local_core {

namespace {

constexpr uint64_t kTellingPauseMs = 100;
constexpr uint64_t kPositionPauseMs = 10'000;
constexpr std::chrono::seconds kGoodbyePatience{1};

constexpr struct {
    nuv_error error;
    const char* name;
    const char* reason;
} kRefusals[] = {
    {NUV_ERROR_INVALID_ARGUMENT, "too_many", "more than the queue takes"},
    {NUV_ERROR_INVALID_STATE, "invalid_state", "it makes no sense now"},
    {NUV_ERROR_NOT_FOUND, "not_found", "no such track"},
    {NUV_ERROR_NOT_CONNECTED, "not_connected", "the session is over"},
    {NUV_ERROR_EMPTY_SESSION, "not_allowed", "this session may not name that"},
};

NamedTrack named(const Track& track) {
    return {track.remote ? track.location : file_url_from_path(track.location),
            track.title,
            track.artist,
            track.album,
            track.album_art_url,
            track.duration_ms};
}

// A track of the network or, where that is the session's own content, of this machine. None where
// the session may not name it.
std::optional<Track> track_of(const NamedTrack& named, const Session& session) {
    Track track;
    track.title = display_text(named.title);
    track.artist = display_text(named.artist);
    track.album = display_text(named.album);
    if (!named.cover.empty()) {
        track.album_art_url = resolve_url("", named.cover).value_or("");
    }
    track.duration_ms = named.duration_ms;
    if (is_remote_url(named.url) && !is_file_url(named.url)) {
        const auto url = resolve_url("", named.url);
        if (!url) {
            return std::nullopt;
        }
        track.location = *url;
        track.remote = session.remote()
                           ? session.remote()
                           : std::make_shared<const HttpRequest>(remote_request_defaults());
        return track;
    }
    const std::optional<std::string> path =
        is_file_url(named.url) ? path_from_file_url(named.url) : named.url;
    if (session.remote() || !path || !path->starts_with('/')) {
        return std::nullopt;
    }
    track.location = *path;
    return track;
}

}  // namespace

RemoteControl::RemoteControl(uv_loop_t* loop, HelloMessage device, Control& control,
                             const Player& player, std::shared_ptr<const Logger> logger,
                             std::function<void()> wake)
    : m_loop(loop),
      m_device(std::move(device)),
      m_control(control),
      m_player(player),
      m_logger(std::move(logger)),
      m_wake(std::move(wake)),
      m_timer(make_loop_handle<uv_timer_t>(
          this, [loop](uv_timer_t* timer) { return uv_timer_init(loop, timer); })) {}

RemoteControl::~RemoteControl() {
    if (m_link) {
        m_link->close(write_goodbye("shutdown"));
        m_link->wait_closed(kGoodbyePatience);
    }
}

// ---- The session ------------------------------------------------------------------------------

void RemoteControl::begin(const std::string& session_id, const RemoteOffer& offer) {
    end("taken_over");
    auto target = link_target(offer.endpoint, offer.token, offer.expiry_s);
    if (!target) {
        return;
    }
    m_device.session = session_id;
    const auto log = [logger = m_logger](bool is_trouble, const std::string& line) {
        logger->write(is_trouble ? LogLevel::warning : LogLevel::info, kCloudClient, "%s",
                      line.c_str());
    };
    const auto on_news = [this] {
        m_has_news = true;
        m_wake();
    };
    try {
        m_link = std::make_unique<Link>(std::move(*target), on_news, log);
    } catch (const std::system_error& failure) {
        m_logger->write(LogLevel::warning, kCloudClient, "No remote control: %s", failure.what());
    }
}

void RemoteControl::end(const char* reason) {
    if (m_link) {
        m_link->close(write_goodbye(reason));
    }
    m_link.reset();
    m_has_news = false;
    m_connection = 0;
    m_told.reset();
    m_edit_id.clear();
    uv_timer_stop(m_timer.get());
}

// ---- Commands ---------------------------------------------------------------------------------

bool RemoteControl::take_command() {
    if (!m_has_news.exchange(false) || !m_link) {
        return false;
    }
    if (std::exchange(m_connection, m_link->connection()) != m_connection) {
        m_told.reset();
    }
    auto incoming = m_link->take();
    if (!incoming) {
        return false;
    }
    m_has_news = true;  // there may be more
    if (incoming->connection != m_connection) {
        return true;
    }
    if (const auto* const refusal = std::get_if<Refusal>(&incoming->message)) {
        say(write_refused(*refusal));
        return true;
    }
    auto& command = std::get<RemoteCommand>(incoming->message);
    const std::string id = command.id;
    bool is_noted = false;
    const nuv_error error = carry_out(command, &is_noted);
    if (is_noted) {
        m_edit_id = id;
        m_edit_connection = m_connection;
        return true;
    }
    answer(id, error);
    if (error == NUV_ERROR_OK && command.verb == RemoteVerb::queue_read) {
        say(queue_text(static_cast<size_t>(command.number)));
    }
    return true;
}

// *is_noted: the answer is known when the change of the list is carried out.
nuv_error RemoteControl::carry_out(RemoteCommand& command, bool* is_noted) {
    static constexpr struct {
        RemoteVerb verb;
        Verb control;
    } kControls[] = {
        {RemoteVerb::play, Verb::resume},       {RemoteVerb::pause, Verb::pause},
        {RemoteVerb::stop, Verb::stop},         {RemoteVerb::next, Verb::next},
        {RemoteVerb::previous, Verb::previous}, {RemoteVerb::seek, Verb::seek},
        {RemoteVerb::leave, Verb::deactivate},
    };
    const auto* const row =
        std::find_if(std::begin(kControls), std::end(kControls),
                     [&](const auto& known) { return known.verb == command.verb; });
    if (row != std::end(kControls)) {
        return m_control.command(row->control, command.number);
    }
    switch (command.verb) {
        case RemoteVerb::volume:
            m_control.set_volume(static_cast<uint32_t>(command.number));
            return NUV_ERROR_OK;
        case RemoteVerb::mute:
            m_control.set_muted(command.flag);
            return NUV_ERROR_OK;
        case RemoteVerb::shuffle:
            m_control.set_shuffle(command.flag);
            return NUV_ERROR_OK;
        case RemoteVerb::loop:
            m_control.set_loop_mode(command.loop_mode);
            return NUV_ERROR_OK;
        case RemoteVerb::queue_read:
            return m_player.session() != nullptr ? NUV_ERROR_OK : NUV_ERROR_NOT_CONNECTED;
        default:
            return edit(command, is_noted);
    }
}

nuv_error RemoteControl::edit(RemoteCommand& command, bool* is_noted) {
    if (m_player.session() == nullptr) {
        return NUV_ERROR_NOT_CONNECTED;
    }
    std::optional<QueueEdit> change = edit_of(command);
    if (!change) {
        return NUV_ERROR_EMPTY_SESSION;
    }
    const nuv_error error = m_control.edit(std::move(*change));
    *is_noted = error == NUV_ERROR_OK;
    return error;
}

// None where a track is not allowed.
std::optional<QueueEdit> RemoteControl::edit_of(RemoteCommand& command) const {
    static constexpr struct {
        RemoteVerb verb;
        QueueEdit::Kind kind;
    } kKinds[] = {
        {RemoteVerb::queue_replace, QueueEdit::Kind::replace},
        {RemoteVerb::queue_insert, QueueEdit::Kind::insert},
        {RemoteVerb::queue_remove, QueueEdit::Kind::remove},
        {RemoteVerb::queue_move, QueueEdit::Kind::move},
        {RemoteVerb::queue_jump, QueueEdit::Kind::jump},
    };
    QueueEdit edit;
    for (const auto& [verb, kind] : kKinds) {
        if (verb == command.verb) {
            edit.kind = kind;
        }
    }
    for (const NamedTrack& named_track : command.tracks) {
        std::optional<Track> track = track_of(named_track, *m_player.session());
        if (!track) {
            return std::nullopt;
        }
        edit.tracks.push_back(std::move(*track));
    }
    edit.start = static_cast<size_t>(command.number);
    edit.items.assign(command.items.begin(), command.items.end());
    if (edit.kind == QueueEdit::Kind::jump) {
        edit.items = {static_cast<size_t>(command.number)};
    }
    if (command.before) {
        edit.before = static_cast<size_t>(*command.before);
    }
    return edit;
}

void RemoteControl::answer_edit(nuv_error error) {
    if (m_link && !m_edit_id.empty() && m_edit_connection == m_connection) {
        answer(m_edit_id, error);
    }
    m_edit_id.clear();
}

void RemoteControl::answer(const std::string& id, nuv_error error) {
    if (error == NUV_ERROR_OK) {
        say(write_done(id));
        return;
    }
    const auto* const row =
        std::find_if(std::begin(kRefusals), std::end(kRefusals),
                     [error](const auto& known) { return known.error == error; });
    const bool is_known = row != std::end(kRefusals);
    say(write_refused(
        {is_known ? row->name : "internal", is_known ? row->reason : "the device has failed", id}));
}

void RemoteControl::say(std::string text) {
    m_link->say(m_connection, std::move(text));
}

// ---- What is new ------------------------------------------------------------------------------

void RemoteControl::tell(const PlaybackSettings& settings, const PlayerView& view) {
    if (m_connection == 0) {
        return;
    }
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
        put(Link::Slot::hello, hello_text(settings));
    }
    if (is_first || m_told->view.list_revision != view.list_revision) {
        put(Link::Slot::queue, queue_text(std::nullopt));
    }
    if (is_first || m_told->view.stream_id != view.stream_id ||
        m_told->view.text_count != view.text_count) {
        put(Link::Slot::track, track_text());
    }
    put(Link::Slot::state, state_text(settings, view));
    m_told = Told{settings, view};
    m_told_ms = now_ms;
    if (plays) {
        set_timer(now_ms + kPositionPauseMs);
    } else {
        uv_timer_stop(m_timer.get());
    }
}

void RemoteControl::tell_trouble(const Trouble& trouble) {
    if (m_connection != 0) {
        say(write_error(trouble.error, trouble.track, trouble.reason));
    }
}

void RemoteControl::put(Link::Slot slot, std::string text) {
    m_link->put(m_connection, slot, std::move(text));
}

void RemoteControl::set_timer(uint64_t due_ms) {
    const uint64_t now_ms = uv_now(m_loop);
    uv_timer_start(
        m_timer.get(),
        [](uv_timer_t* timer) { static_cast<RemoteControl*>(timer->data)->m_wake(); },
        due_ms - std::min(due_ms, now_ms), 0);
}

std::string RemoteControl::hello_text(const PlaybackSettings& settings) const {
    HelloMessage hello = m_device;
    hello.name = settings.device_name;
    hello.commands_per_second = Link::kCommandsASecond;
    hello.command_burst = Link::kCommandBurst;
    hello.queue_tracks = Session::kMaxTracks;
    return write_hello(hello);
}

// None: from the beginning, or from the current track where that would leave it out.
std::string RemoteControl::queue_text(std::optional<size_t> first) const {
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
    const auto place = static_cast<size_t>(current - list.begin());
    return first || place < end ? message.text() : queue_text(place);
}

std::string RemoteControl::track_text() const {
    const std::optional<HeardTrack> heard = m_player.heard();
    if (!heard) {
        return write_track(nullptr);
    }
    const TrackInfo& info = *heard->info;
    const TrackTexts& texts = *heard->texts;
    const TrackMessage track{heard->track,        texts.title,        texts.artist,  texts.album,
                             texts.album_art_url, info.duration_ms(), info.seekable, info.format};
    return write_track(&track);
}

std::string RemoteControl::state_text(const PlaybackSettings& settings,
                                      const PlayerView& view) const {
    StateMessage state;
    state.playback = view.state;
    state.active = view.active;
    state.item = view.track;
    state.position_ms = m_player.position_ms();
    const auto now = std::chrono::system_clock::now().time_since_epoch();
    state.taken_ms = static_cast<uint64_t>(
        std::max<int64_t>(std::chrono::duration_cast<std::chrono::milliseconds>(now).count(), 0));
    if (settings.volume_known) {
        state.volume = settings.volume;
    }
    state.muted = settings.muted;
    state.shuffle = settings.shuffle;
    state.loop_mode = settings.loop_mode;
    state.has_next = view.has_next;
    state.has_previous = view.has_previous;
    return write_state(state);
}

}  // namespace local_core
