#include "controller/session/sessions.h"

#include <algorithm>
#include <ctime>
#include <memory>
#include <utility>

#include "controller/base/token.h"
#include "controller/device/http_client.h"
#include "controller/device/offer.h"

namespace nuvio::controller {

namespace {

constexpr int64_t kSessionSeconds = int64_t{7} * 24 * 3600;
constexpr size_t kMaxPlaylist = 500;  // tracks; devices read 1,000, and 4 MiB
// Devices try for a minute to reach what they are to play.
constexpr std::chrono::seconds kLongestOpening{70};
// Where no channel has told of it, the device is asked then what it plays.
constexpr std::chrono::seconds kFirstLook{10};

std::string title_of(const ToldTrack& track) {
    return track.title.empty() ? track.url : track.title;
}

bool is_ipv6(const std::string& address) {
    return address.find(':') != std::string::npos;
}

// A request's, of what is left.
std::chrono::milliseconds patience(Commands::Clock::time_point latest) {
    const auto left = latest - Commands::Clock::now();
    return std::min<std::chrono::milliseconds>(
        Commands::kPatience, std::chrono::duration_cast<std::chrono::milliseconds>(left));
}

std::string refusal(const HttpAnswer& answer) {
    const std::string text = answer.body.substr(0, answer.body.find('\n'));
    return answer.status == 0 ? answer.failure
                              : "the device refused (" + std::to_string(answer.status) +
                                    "): " + text.substr(0, 200);
}

}  // namespace

Outcome Sessions::play(const std::string& id, const ToldTracks& tracks, Where where,
                       std::optional<size_t> start, const Prepare& prepare) {
    const Time latest = Commands::Clock::now() + kPatience;
    if (tracks.empty()) {
        return {false, "nothing to play"};
    }
    if (start) {
        start = std::min(*start, tracks.size() - 1);
    }
    FoundDevice found;
    bool is_linked = false;
    {
        const std::scoped_lock lock(m_house.mutex);
        Device* const device = m_house.find(id);
        if (device == nullptr || !device->is_present) {
            return {false, "the device is not on the network: is it switched on?"};
        }
        found = device->found;
        is_linked = device->owner == Owner::us && device->link != nullptr;
        if (!is_linked || where == Where::now) {
            device->ask_for({title_of(tracks[start.value_or(0)]),
                             is_linked ? device->link_session : "", device->state.revision()});
            m_house.change();
        }
    }
    if (is_linked && where != Where::now) {
        return insert(id, tracks, where, latest);
    }
    Outcome outcome = is_linked ? play_linked(id, found, tracks, start, prepare, latest)
                                : play_anew(id, found, tracks, start, prepare, latest);
    if (!outcome.is_ok) {
        const std::scoped_lock lock(m_house.mutex);
        m_commands.fail(id, outcome.reason);
    }
    return outcome;
}

Outcome Sessions::play_linked(const std::string& id, const FoundDevice& found,
                              const ToldTracks& tracks, std::optional<size_t> start,
                              const Prepare& prepare, Time latest) {
    if (prepare) {
        prepare(latest);
    }
    std::vector<JsonPtr> lists = track_lists(tracks, address_here(id));
    return lists.size() == 1 ? replace(id, std::move(lists.front()), start, latest)
                             : hand_over(id, found, tracks, start, true, latest).outcome;
}

Outcome Sessions::play_anew(const std::string& id, const FoundDevice& found,
                            const ToldTracks& tracks, std::optional<size_t> start,
                            const Prepare& prepare, Time latest) {
    Outcome outcome = hand_over(id, found, tracks, start, !prepare, latest).outcome;
    if (!prepare || !outcome.is_ok) {
        return outcome;
    }
    if (!has_queue(id, Commands::Clock::now() + kLongestOpening)) {
        const std::scoped_lock lock(m_house.mutex);
        const Device* const device = m_house.find(id);
        const bool is_told = device != nullptr && !device->problem.empty();
        return {false, is_told ? device->problem : "the device does not begin to play"};
    }
    latest = Commands::Clock::now() + Commands::kPatience;
    prepare(latest);
    return m_commands.run(id, "play", new_object(), latest);
}

// A session begins with its first track and as many more as a device reads of a playlist: what
// stands before `start`, and the rest, are put there afterwards.
Sessions::HandedOver Sessions::hand_over(const std::string& id, const FoundDevice& found,
                                         const ToldTracks& tracks, std::optional<size_t> start,
                                         bool plays, Time latest) {
    const auto first = tracks.begin() + static_cast<std::ptrdiff_t>(start.value_or(0));
    const auto end = first + static_cast<std::ptrdiff_t>(std::min<size_t>(
                                 kMaxPlaylist, static_cast<size_t>(tracks.end() - first)));
    HandedOver begun = begin(id, found, {{first, end}, start.has_value(), plays}, latest);
    const bool is_all = first == tracks.begin() && end == tracks.end();
    if (!begun.outcome.is_ok || is_all ||
        !has_queue(id, std::min(latest, Commands::Clock::now() + Commands::kPatience))) {
        return begun;  // its state says what became of it
    }
    // In front first, while the whole queue is known.
    if (first != tracks.begin()) {
        begun.outcome = insert(id, {tracks.begin(), first}, Where::front, latest);
    }
    if (end != tracks.end() && begun.outcome.is_ok) {
        begun.outcome = insert(id, {end, tracks.end()}, Where::end, latest);
    }
    return begun;
}

std::string Sessions::device_of_token(std::string_view token) const {
    const std::scoped_lock lock(m_house.mutex);
    return m_house.sessions.of_token(token).device;
}

std::optional<std::string> Sessions::playlist(const std::string& session,
                                              std::string_view token) const {
    const std::scoped_lock lock(m_house.mutex);
    const Session& found = m_house.sessions.of_token(token);
    return found.id != session || found.playlist.empty() ? std::nullopt
                                                         : std::optional(found.playlist);
}

// One at a time: a device that refuses one has still the session before it.
Sessions::HandedOver Sessions::begin(const std::string& id, const FoundDevice& found,
                                     const Beginning& beginning, Time latest) {
    {
        std::unique_lock lock(m_house.mutex);
        if (!m_house.on_change.wait_for(lock, Commands::kPatience, [&] {
                return m_house.is_closed || !m_offered_to.contains(id);
            })) {
            return {{false, "the device is still being offered something else"}, {}};
        }
        if (m_house.is_closed) {
            return {{false, "the controller ends"}, {}};
        }
        m_offered_to.insert(id);
    }
    const auto done = [&](Sessions*) {
        const std::scoped_lock lock(m_house.mutex);
        m_offered_to.erase(id);
        m_house.on_change.notify_all();
    };
    const std::unique_ptr<Sessions, decltype(done)> offering(this, done);
    return offer(id, found, beginning, latest);
}

// The session is known before the device is asked, which fetches its content at once.
Sessions::HandedOver Sessions::offer(const std::string& id, const FoundDevice& found,
                                     const Beginning& beginning, Time latest) {
    const HttpAnswer reached = ask_device(found, "GET", "get-connect-info", {}, patience(latest));
    if (reached.status != 200) {
        return {{false, refusal(reached)}, {}};
    }
    if (is_ipv6(reached.local_address)) {  // the web server has none
        return {{false,
                 "the device is reached by IPv6 only, and fetches music from here by IPv4 only: "
                 "give it an IPv4 address"},
                {}};
    }
    Session session{.device = id,
                    .id = new_token(),
                    .token = new_token(),
                    .expires = std::time(nullptr) + kSessionSeconds,
                    .playlist = {},
                    .here = "http://" + reached.local_address + ":" + std::to_string(m_port),
                    .is_offered = true,
                    .is_joined = false};
    session.playlist = playlist_of(beginning.tracks, session.here);
    {
        const std::scoped_lock lock(m_house.mutex);
        m_house.sessions.offer(session);
        Device* const device = m_house.find(id);
        if (device != nullptr && device->asked) {
            device->asked->session = session.id;
            device->asked->revision.reset();
        }
    }
    const HttpAnswer answer = ask_device(
        found, "POST", "connect-to-nconnect",
        offer_body({session.id,
                    session.here + "/content/" + session.id +
                        (beginning.is_first_first ? ".jspf#start=0" : ".jspf"),
                    "ws" + session.here.substr(std::string_view("http").size()) + "/channel",
                    session.token, session.expires, beginning.plays}),
        patience(latest));
    settle(id, session.id, answer.status == 200);
    return {answer.status == 200 ? Outcome{true, {}} : Outcome{false, refusal(answer)}, session.id};
}

// That it is accepted says that the device looks at it: whether it plays it its channel tells.
void Sessions::settle(const std::string& id, const std::string& session, bool is_accepted) {
    {
        const std::scoped_lock lock(m_house.mutex);
        Device* const device = m_house.find(id);
        if (!is_accepted) {
            m_house.sessions.end(session);
            m_house.errands[id] = {};
        } else {
            m_house.sessions.accept(session);
            m_house.errands.try_emplace(id, Commands::Clock::now() + kFirstLook);
        }
        if (is_accepted && device != nullptr) {
            device->reach = Reach::reached;
        }
        m_house.change();
    }
    if (is_accepted) {
        m_house.write_sessions();
    }
}

Outcome Sessions::replace(const std::string& id, JsonPtr tracks, std::optional<size_t> start,
                          Time latest) {
    JsonPtr arguments = new_object();
    add(arguments.get(), "tracks", std::move(tracks));
    if (start) {
        add(arguments.get(), "start", static_cast<int64_t>(*start));
    }
    const Outcome outcome = m_commands.run(id, "queue_replace", std::move(arguments), latest);
    return outcome.is_ok ? m_commands.run(id, "play", new_object(), latest) : outcome;
}

Outcome Sessions::insert(const std::string& id, const ToldTracks& added, Where where, Time latest) {
    std::optional<int64_t> before;
    {
        const std::scoped_lock lock(m_house.mutex);
        if (const Device* const device = m_house.find(id)) {
            before = where == Where::next    ? device->state.item_after_current()
                     : where == Where::front ? device->state.first_item()
                                             : std::nullopt;
        }
    }
    return insert_before(id, added, before, latest);
}

Outcome Sessions::insert_before(const std::string& id, const ToldTracks& added,
                                std::optional<int64_t> before, Time latest) {
    bool is_there = false;
    {
        const std::scoped_lock lock(m_house.mutex);
        const Device* const device = m_house.find(id);
        is_there = before && device != nullptr && device->state.find(*before) != nullptr;
    }
    std::vector<JsonPtr> lists = track_lists(added, address_here(id));
    for (JsonPtr& tracks : lists) {
        const bool is_last = &tracks == &lists.back();
        set_being_filled(id, !is_last);
        JsonPtr arguments = new_object();
        add(arguments.get(), "tracks", std::move(tracks));
        if (is_there) {
            add(arguments.get(), "before", *before);
        }
        Outcome outcome =
            m_commands.run(id, "queue_insert", std::move(arguments), latest,
                           is_last ? Commands::Until::effect : Commands::Until::answer);
        if (!outcome.is_ok) {
            set_being_filled(id, false);
            return outcome;
        }
    }
    return {true, {}};
}

void Sessions::set_being_filled(const std::string& id, bool is_being_filled) {
    const std::scoped_lock lock(m_house.mutex);
    if (Device* const device = m_house.find(id)) {
        device->is_being_filled = is_being_filled;
        Commands::read_rest(*device);
    }
}

// Once the device's channel has told of the queue that was asked for; false: it does not come.
bool Sessions::has_queue(const std::string& id, Time latest) {
    std::unique_lock lock(m_house.mutex);
    const Device* device = nullptr;
    const auto has_queue = [&] {
        return device != nullptr && device->link != nullptr && device->state.has_queue() &&
               (!device->asked || device->link_session == device->asked->session);
    };
    m_house.on_change.wait_until(lock, latest, [&] {
        device = m_house.find(id);
        return m_house.is_closed || device == nullptr || !device->problem.empty() || has_queue();
    });
    return has_queue();
}

std::string Sessions::address_here(const std::string& id) const {
    const std::scoped_lock lock(m_house.mutex);
    return m_house.sessions.of(id).here;
}

}  // namespace nuvio::controller
