#include "controller/session/channels.h"

#include <algorithm>
#include <chrono>
#include <optional>

#include "controller/base/log.h"
#include "controller/session/tracks.h"

namespace nuvio::controller {

namespace {

int64_t unix_ms() {
    return std::chrono::duration_cast<std::chrono::milliseconds>(
               std::chrono::system_clock::now().time_since_epoch())
        .count();
}

// What the device's list has beyond what one message holds.
void ask_for_rest(const Device& device) {
    if (const std::optional<int64_t> place = device.state.missing_place()) {
        JsonPtr arguments = new_object();
        add(arguments.get(), "first", *place);
        Commands::send(device, "queue_read", "rest", std::move(arguments));
    }
}

}  // namespace

bool Channels::opened(std::string_view token, const std::shared_ptr<ChannelLink>& link) {
    const std::scoped_lock lock(m_house.mutex);
    const Session& session = m_house.sessions.of_token(token);
    if (session.id.empty() || m_house.is_closed) {
        return false;
    }
    Device& device = m_house.devices[session.device];
    if (device.link != nullptr) {
        device.link->close();
    }
    device.link = link;
    device.link_session = session.id;
    device.owner = Owner::us;
    device.state = DeviceState(session.here);
    device.is_bit_exact = false;
    m_house.change();
    return true;
}

void Channels::said(const ChannelLink* link, std::string_view text) {
    const JsonPtr message = parse_json(text);
    const std::string type = text_member(message.get(), "type").value_or("");
    {
        const std::scoped_lock lock(m_house.mutex);
        Entry* const entry = entry_of(link);
        if (entry == nullptr || !take(*entry, type, message.get())) {
            return;
        }
        m_house.change();
    }
    if (type == "goodbye") {
        m_house.write_sessions();
    } else if (type == "track" || type == "queue") {
        judge_track(link);
    }
}

// False: nothing in it was understood.
bool Channels::take(Entry& entry, const std::string& type, const cJSON* message) {
    Device& device = entry.second;
    if (type == "answer") {
        m_commands.take_answer(message);
    } else if (type == "goodbye") {
        end(entry, text_member(message, "reason") == "taken_over" ? Owner::other : Owner::nobody);
    } else if (type == "hello") {
        // Announced only later, where the controller was started after the device.
        if (device.found.name.empty()) {
            device.found.name = text_member(member(message, "device"), "name").value_or("");
        }
    } else if (!device.state.apply(message, DeviceState::Clock::now(), unix_ms())) {
        return false;
    } else if (type == "queue") {
        ask_for_rest(device);
    }
    return true;
}

// What ended the session may be the next one from here, whose channel is about to open.
void Channels::end(Entry& entry, Owner next) {
    Device& device = entry.second;
    m_house.sessions.end(device.link_session);
    if (m_house.sessions.of(entry.first).id.empty()) {
        device.owner = next;
    }
    device.link.reset();
    device.state = {};
}

// Whose device plays now is asked of it: it may be gone, or play on by itself.
void Channels::closed(const ChannelLink* link) {
    const std::scoped_lock lock(m_house.mutex);
    Entry* const entry = entry_of(link);
    if (entry == nullptr) {
        return;
    }
    entry->second.link.reset();
    entry->second.reach = Reach::asking;
    m_house.errands[entry->first] = {};
    m_commands.fail_all_of(entry->first);
    m_house.change();
}

Channels::Entry* Channels::entry_of(const ChannelLink* link) {
    const auto found = std::ranges::find_if(
        m_house.devices, [link](const Entry& entry) { return entry.second.link.get() == link; });
    return found == m_house.devices.end() ? nullptr : &*found;
}

// Bit-exact is what a lossless file's own rate and depth tell, where the device decodes just these.
void Channels::judge_track(const ChannelLink* link) {
    int64_t track_id = 0;
    {
        const std::scoped_lock lock(m_house.mutex);
        const Entry* const entry = entry_of(link);
        const std::optional<int64_t> item =
            entry != nullptr ? entry->second.state.track().item : std::nullopt;
        const QueueItem* queued = item ? entry->second.state.find(*item) : nullptr;
        track_id = queued != nullptr ? track_id_of(queued->url, entry->second.state.here()) : 0;
    }
    std::optional<Track> file;
    try {
        file = track_id != 0 ? m_library.view().track(track_id) : std::nullopt;
    } catch (const DatabaseError& error) {
        log_line(LogLevel::error, std::string("The library can't be read: ") + error.what());
    }
    const std::scoped_lock lock(m_house.mutex);
    if (Entry* const entry = entry_of(link)) {
        const TrackHeard& heard = entry->second.state.track();
        entry->second.is_bit_exact = file && file->bits != 0 && file->bits == heard.bits &&
                                     file->rate_hz == heard.rate_hz && heard.changed.empty();
        m_house.change();
    }
}

}  // namespace nuvio::controller
