// The house's other half: sessions are handed out, and what their channels say and are told.

#include <algorithm>
#include <ctime>

#include "controller/base/log.h"
#include "controller/base/token.h"
#include "controller/device/http_client.h"
#include "controller/session/house.h"
#include "controller/session/tracks.h"

namespace nuvio::controller {

namespace {

// Devices answer these before they tell what came of them: who asks next is to see that. A volume
// that was so before is not told again.
const std::set<std::string> kChangesQueue{"queue_replace", "queue_insert", "queue_remove",
                                          "queue_move"};
const std::set<std::string> kChangesState{"volume", "seek"};
// A session that has just begun opens its channel a moment later.
constexpr std::chrono::milliseconds kChannelPatience{3000};
constexpr std::chrono::milliseconds kQueuePatience{1000};
constexpr std::chrono::milliseconds kStatePatience{300};
constexpr int64_t kSessionSeconds = int64_t{7} * 24 * 3600;

int64_t unix_ms() {
    return std::chrono::duration_cast<std::chrono::milliseconds>(
               std::chrono::system_clock::now().time_since_epoch())
        .count();
}

bool is_ipv6(const std::string& address) {
    return address.find(':') != std::string::npos;
}

// The body of the POST. Content and channel have one token.
std::string offer(const Session& session) {
    const auto token = [&](const std::string& endpoint) {
        JsonPtr object = new_object();
        add(object.get(), "endpoint", endpoint);
        add(object.get(), "jwt", session.token);
        add(object.get(), "exp", session.expires);
        return object;
    };
    JsonPtr document = new_object();
    add(document.get(), "session_id", session.id);
    add(document.get(), "jwt_api", token(session.here + "/content/" + session.id + ".jspf"));
    add(document.get(), "jwt_nconnect",
        token("ws" + session.here.substr(std::string_view("http").size()) + "/channel"));
    add(document.get(), "become_active", true);
    return print_json(document.get());
}

std::string refusal(const HttpAnswer& answer) {
    const std::string text = answer.body.substr(0, answer.body.find('\n'));
    return answer.status == 0 ? answer.failure
                              : "the device refused (" + std::to_string(answer.status) +
                                    "): " + text.substr(0, 200);
}

}  // namespace

// ---- Playing ------------------------------------------------------------------------------------

Outcome House::play(const std::string& id, const std::vector<Playable>& items, Where where,
                    size_t start) {
    FoundDevice found;
    std::string here;
    bool is_linked = false;
    {
        const std::scoped_lock lock(m_mutex);
        const auto device = m_devices.find(id);
        if (device == m_devices.end() || !device->second.is_present) {
            return {false, "the device is not on the network: is it switched on?"};
        }
        found = device->second.found;
        is_linked = device->second.owner == Owner::us && device->second.link != nullptr;
        here = m_sessions.all().contains(id) ? m_sessions.all().at(id).here : "";
    }
    if (items.empty()) {
        return {false, "nothing to play"};
    }
    start = std::min(start, items.size() - 1);
    if (is_linked && where != Where::now) {
        return insert(id, items, where);
    }
    if (is_linked) {
        std::vector<JsonPtr> lists = track_lists(items, here);
        if (lists.size() == 1) {
            return replace(id, std::move(lists.front()), start);
        }
    }
    // A session begins with its first track: what stands before `start` is put there afterwards.
    const auto first = items.begin() + static_cast<std::ptrdiff_t>(start);
    Outcome outcome = begin_session(id, found, {first, items.end()});
    if (outcome.is_ok && start > 0 && has_queue(id)) {
        insert(id, {items.begin(), first}, Where::front);
    }
    return outcome;
}

// Once the device's channel has told of its queue.
bool House::has_queue(const std::string& id) {
    std::unique_lock lock(m_mutex);
    return m_on_change.wait_for(lock, kPatience, [&] {
        return m_is_closed || (m_devices[id].link != nullptr && m_devices[id].state.has_queue());
    });
}

Outcome House::replace(const std::string& id, JsonPtr tracks, size_t start) {
    JsonPtr arguments = new_object();
    add(arguments.get(), "tracks", std::move(tracks));
    add(arguments.get(), "start", static_cast<int64_t>(start));
    const Outcome outcome = command(id, "queue_replace", std::move(arguments));
    return outcome.is_ok ? command(id, "play", new_object()) : outcome;
}

// The session is known before the device is asked, which fetches its content at once.
Outcome House::begin_session(const std::string& id, const FoundDevice& found,
                             const std::vector<Playable>& items) {
    const HttpAnswer reached = ask_device(found, "GET", "get-connect-info");
    if (reached.status != 200) {
        return {false, refusal(reached)};
    }
    if (is_ipv6(reached.local_address)) {  // the web server has none
        return {false,
                "the device is reached by IPv6 only, and fetches music from here by IPv4 only: "
                "give it an IPv4 address"};
    }
    Session session{new_token(), new_token(), std::time(nullptr) + kSessionSeconds, {}, {}};
    session.here = "http://" + reached.local_address + ":" + std::to_string(m_port);
    session.playlist = playlist_of(items, session.here);
    Session before;
    {
        const std::scoped_lock lock(m_mutex);
        const auto known = m_sessions.all().find(id);
        before = known != m_sessions.all().end() ? known->second : Session{};
        m_sessions.set(id, session);
    }
    const HttpAnswer answer = ask_device(found, "POST", "connect-to-nconnect", offer(session));
    const std::scoped_lock lock(m_mutex);
    const auto device = m_devices.find(id);
    if (answer.status != 200) {
        m_sessions.set(id, before);
        m_errands[id] = {};
        change();
        return {false, refusal(answer)};
    }
    if (device != m_devices.end()) {
        device->second.owner = Owner::us;
        device->second.reach = Reach::reached;
        change();
    }
    return {true, {}};
}

Outcome House::insert(const std::string& id, const std::vector<Playable>& items, Where where) {
    std::string here;
    std::optional<int64_t> before;
    {
        const std::scoped_lock lock(m_mutex);
        here = m_sessions.all().contains(id) ? m_sessions.all().at(id).here : "";
        const DeviceState& state = m_devices[id].state;
        before = where == Where::next    ? state.item_after_current()
                 : where == Where::front ? state.first_item()
                                         : std::nullopt;
    }
    for (JsonPtr& tracks : track_lists(items, here)) {
        JsonPtr arguments = new_object();
        add(arguments.get(), "tracks", std::move(tracks));
        if (before) {
            add(arguments.get(), "before", *before);
        }
        Outcome outcome = command(id, "queue_insert", std::move(arguments));
        if (!outcome.is_ok) {
            return outcome;
        }
    }
    return {true, {}};
}

Outcome House::command(const std::string& id, const std::string& name, JsonPtr arguments) {
    std::unique_lock lock(m_mutex);
    m_on_change.wait_for(lock, kChannelPatience, [&] {
        const auto device = m_devices.find(id);
        return m_is_closed || device == m_devices.end() || device->second.link != nullptr ||
               device->second.owner != Owner::us;
    });
    const auto device = m_devices.find(id);
    if (device == m_devices.end()) {
        return {false, "no such device"};
    }
    if (device->second.link == nullptr) {
        return {false, device->second.owner == Owner::other
                           ? "another controller uses the device; play something to take it over"
                       : device->second.owner == Owner::us
                           ? "the device does not answer just now; it is expected back"
                           : "nothing plays there; play something first"};
    }
    const std::string command_id = std::to_string(++m_command_count);
    add(arguments.get(), "type", "command");
    add(arguments.get(), "id", command_id);
    add(arguments.get(), "command", name);
    m_waiting[command_id] = {id, std::nullopt};
    const int64_t revision = device->second.state.revision();
    const int64_t states = device->second.state.state_count();
    device->second.link->send(print_json(arguments.get()));
    m_on_change.wait_for(lock, kPatience,
                         [&] { return m_is_closed || m_waiting[command_id].outcome.has_value(); });
    Outcome outcome = m_waiting[command_id].outcome.value_or(Outcome{
        false, "the device has not answered within " + std::to_string(kPatience.count()) + " s"});
    m_waiting.erase(command_id);
    if (outcome.is_ok && kChangesQueue.contains(name)) {
        m_on_change.wait_for(lock, kQueuePatience, [&] {
            return m_is_closed || m_devices[id].state.revision() != revision;
        });
    } else if (outcome.is_ok && kChangesState.contains(name)) {
        m_on_change.wait_for(lock, kStatePatience, [&] {
            return m_is_closed || m_devices[id].state.state_count() != states;
        });
    }
    return outcome;
}

// ---- The channels -------------------------------------------------------------------------------

bool House::channel_opened(std::string_view token, const std::shared_ptr<ChannelLink>& link) {
    const std::scoped_lock lock(m_mutex);
    const std::string id = m_sessions.device_of_token(token);
    if (id.empty() || m_is_closed) {
        return false;
    }
    Device& device = m_devices[id];
    if (device.link != nullptr) {
        device.link->close();
    }
    device.link = link;
    device.owner = Owner::us;
    device.state = {};
    device.is_bit_exact = false;
    change();
    return true;
}

House::Device* House::device_of(const ChannelLink* link) {
    const auto found = std::ranges::find_if(
        m_devices, [link](const auto& entry) { return entry.second.link.get() == link; });
    return found == m_devices.end() ? nullptr : &found->second;
}

void House::channel_said(const ChannelLink* link, std::string_view text) {
    const JsonPtr message = parse_json(text);
    const std::string type = text_member(message.get(), "type").value_or("");
    {
        const std::scoped_lock lock(m_mutex);
        Device* device = device_of(link);
        if (device == nullptr) {
            return;
        }
        if (type == "answer") {
            note_answer(message.get());
        } else if (type == "goodbye") {
            note_goodbye(*device, text_member(message.get(), "reason").value_or(""));
        } else if (type == "hello") {
            // Announced only later, where the controller was started after the device.
            const cJSON* self = member(message.get(), "device");
            device->found.name = device->found.name.empty() ? text_member(self, "name").value_or("")
                                                            : device->found.name;
        } else if (!device->state.apply(message.get(), DeviceState::Clock::now(), unix_ms())) {
            return;
        }
        if (type == "queue") {
            ask_for_rest(*device);
        }
        change();
    }
    if (type == "track" || type == "queue") {
        note_track(link);
    }
}

void House::ask_for_rest(const Device& device) {
    if (const std::optional<int64_t> place = device.state.missing_place()) {
        JsonPtr command = new_object();
        add(command.get(), "type", "command");
        add(command.get(), "id", "rest");
        add(command.get(), "command", "queue_read");
        add(command.get(), "first", *place);
        device.link->send(print_json(command.get()));
    }
}

void House::note_answer(const cJSON* message) {
    const auto waiting = m_waiting.find(text_member(message, "id").value_or(""));
    if (waiting != m_waiting.end()) {
        waiting->second.outcome =
            Outcome{bool_member(message, "ok").value_or(false),
                    text_member(message, "reason").value_or("the device refused")};
    }
}

void House::note_goodbye(Device& device, const std::string& reason) {
    device.owner = reason == "taken_over" ? Owner::other : Owner::nobody;
    device.link.reset();
    device.state = {};
}

// Bit-exact is what a lossless file's own rate and depth tell, where the device decodes just these.
void House::note_track(const ChannelLink* link) {
    int64_t track_id = 0;
    {
        const std::scoped_lock lock(m_mutex);
        const Device* device = device_of(link);
        const std::optional<int64_t> item =
            device != nullptr ? device->state.track().item : std::nullopt;
        const QueueItem* queued = item ? device->state.find(*item) : nullptr;
        track_id = queued != nullptr ? track_id_of(queued->url) : 0;
    }
    std::optional<Track> file;
    try {
        file = track_id != 0 ? m_library.shelf().track(track_id) : std::nullopt;
    } catch (const DatabaseError& error) {
        log_line(LogLevel::error, std::string("The library can't be read: ") + error.what());
    }
    const std::scoped_lock lock(m_mutex);
    if (Device* device = device_of(link)) {
        const TrackHeard& heard = device->state.track();
        device->is_bit_exact =
            file && file->bits != 0 && file->bits == heard.bits && file->rate_hz == heard.rate_hz;
        change();
    }
}

// Whose device plays now is asked of it: it may be gone, or play on by itself.
void House::channel_closed(const ChannelLink* link) {
    const std::scoped_lock lock(m_mutex);
    const auto entry = std::ranges::find_if(
        m_devices, [link](const auto& each) { return each.second.link.get() == link; });
    if (entry == m_devices.end()) {
        return;
    }
    entry->second.link.reset();
    entry->second.reach = Reach::asking;
    m_errands[entry->first] = {};
    for (auto& [id, waiting] : m_waiting) {
        if (waiting.device == entry->first && !waiting.outcome) {
            waiting.outcome = Outcome{false, "the device's connection broke"};
        }
    }
    change();
}

}  // namespace nuvio::controller
