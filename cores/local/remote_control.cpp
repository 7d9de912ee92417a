#include "local/remote_control.h"

#include <algorithm>
#include <chrono>
#include <iterator>
#include <limits>
#include <system_error>
#include <utility>

#include "common/url/url.h"
#include "local/network/remote_settings.h"
#include "local/texts/display_text.h"
#include "local/texts/file_url.h"

namespace local_core {

namespace {

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

// A number of a server's as a place or a track's number; what is too large for one names none.
size_t place(uint64_t number) {
    return static_cast<size_t>(std::min<uint64_t>(number, std::numeric_limits<size_t>::max()));
}

// A track of the network or, where that is the session's own content, of this machine. None where
// the session may not name it.
std::optional<Track> track_of(const NamedTrack& named, const Session& session) {
    Track track;
    track.title = display_text(named.title);
    track.artist = display_text(named.artist);
    track.album = display_text(named.album);
    if (!named.cover.empty()) {
        track.album_art_url = nuvio::resolve_url("", named.cover).value_or("");
    }
    track.duration_ms = named.duration_ms;
    if (is_remote_url(named.url) && !is_file_url(named.url)) {
        const auto url = nuvio::resolve_url("", named.url);
        if (!url) {
            return std::nullopt;
        }
        track.location = *url;
        track.section = nuvio::section_of(named.url);
        track.remote = session.remote()
                           ? session.remote()
                           : std::make_shared<const HttpRequest>(remote_request_defaults());
        return track;
    }
    std::optional<std::string> path = named.url;
    if (is_file_url(named.url)) {
        path = path_from_file_url(nuvio::without_section(named.url));
        track.section = nuvio::section_of(named.url);
    }
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
    : m_control(control),
      m_player(player),
      m_logger(std::move(logger)),
      m_wake(std::move(wake)),
      m_report(loop, std::move(device), player, m_wake) {}

RemoteControl::~RemoteControl() {
    if (m_link) {
        m_link->close(write_goodbye("shutdown"));
    }
    Link::wait_all_closed(kGoodbyePatience);
}

// ---- The session ------------------------------------------------------------------------------

void RemoteControl::begin(const std::string& session_id, const RemoteOffer& offer) {
    end("taken_over");
    m_report.set_session(session_id);
    m_link = link_to(offer, false);
}

void RemoteControl::decline(const RemoteOffer& offer, const std::string& reason) {
    m_why_declined = write_error("session_failed", std::nullopt, reason);
    m_declined = link_to(offer, true);
}

void RemoteControl::tell_declined() {
    const uint64_t connection = m_declined ? m_declined->connection() : 0;
    if (connection != 0) {
        m_declined->say(connection, m_why_declined);
        m_declined->close(write_goodbye("not_joined"));
        m_declined.reset();
    }
}

// Null for an offer that can't be used.
std::unique_ptr<Link> RemoteControl::link_to(const RemoteOffer& offer, bool is_for_once) {
    auto target = link_target(offer.endpoint, offer.token, offer.expiry_s);
    if (!target) {
        return nullptr;
    }
    target->authorities = remote_request_defaults().authorities;
    target->is_for_once = is_for_once;
    const auto log = [logger = m_logger](bool is_warning, const std::string& line) {
        logger->write(is_warning ? LogLevel::warning : LogLevel::info, kCloudClient, "%s",
                      line.c_str());
    };
    const auto on_change = [this] {
        m_has_changed = true;
        m_wake();
    };
    try {
        return std::make_unique<Link>(std::move(*target), on_change, log);
    } catch (const std::system_error& failure) {
        m_logger->write(LogLevel::warning, kCloudClient, "No remote control: %s", failure.what());
        return nullptr;
    }
}

void RemoteControl::end(const char* reason) {
    if (m_link) {
        m_link->close(write_goodbye(reason));
    }
    m_link.reset();
    m_has_changed = false;
    m_connection = 0;
    m_report.end();
    m_edit_id.clear();
}

// ---- Commands ---------------------------------------------------------------------------------

bool RemoteControl::take_command() {
    tell_declined();
    if (!m_has_changed.exchange(false) || !m_link) {
        return false;
    }
    if (std::exchange(m_connection, m_link->connection()) != m_connection) {
        m_report.begin_anew();
    }
    auto incoming = m_link->take();
    if (!incoming) {
        return false;
    }
    m_has_changed = true;  // there may be more
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
    if (error == NUV_ERROR_OK && command.verb == Verb::queue_read) {
        say(m_report.queue_text(place(command.number)));
    }
    return true;
}

// *is_noted: the answer is known when the change of the list is carried out.
nuv_error RemoteControl::carry_out(RemoteCommand& command, bool* is_noted) {
    switch (command.verb) {
        case Verb::deactivate:
        case Verb::resume:
        case Verb::pause:
        case Verb::stop:
        case Verb::next:
        case Verb::previous:
        case Verb::seek:
            return m_control.command(command.verb, command.number);
        case Verb::volume:
            m_control.set_volume(static_cast<uint32_t>(command.number));
            return NUV_ERROR_OK;
        case Verb::mute:
            m_control.set_muted(command.flag);
            return NUV_ERROR_OK;
        case Verb::shuffle:
            m_control.set_shuffle(command.flag);
            return NUV_ERROR_OK;
        case Verb::loop:
            m_control.set_loop_mode(command.loop_mode);
            return NUV_ERROR_OK;
        case Verb::queue_read:
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
    QueueEdit edit;
    edit.verb = command.verb;
    for (const NamedTrack& named_track : command.tracks) {
        std::optional<Track> track = track_of(named_track, *m_player.session());
        if (!track) {
            return std::nullopt;
        }
        edit.tracks.push_back(std::move(*track));
    }
    if (command.start) {
        edit.start = place(*command.start);
    }
    if (edit.verb == Verb::queue_replace) {
        edit.tracks[edit.start.value_or(0)].note_asked();
    }
    std::transform(command.items.begin(), command.items.end(), std::back_inserter(edit.items),
                   place);
    if (edit.verb == Verb::queue_jump) {
        edit.items = {place(command.number)};
    }
    if (command.before) {
        edit.before = place(*command.before);
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

// ---- Reports ----------------------------------------------------------------------------------

void RemoteControl::tell(const PlaybackSettings& settings, const PlayerView& view) {
    if (m_connection != 0) {
        m_report.tell(*m_link, m_connection, settings, view);
    }
}

void RemoteControl::tell_failure(const Failure& failure) {
    if (m_connection != 0) {
        say(write_error(failure.error, failure.track, failure.reason));
    }
}

}  // namespace local_core
