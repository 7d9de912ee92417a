#include "controller/session/channels.h"

#include <algorithm>
#include <chrono>
#include <optional>
#include <utility>

#include "common/utf8.h"
#include "controller/base/log.h"
#include "controller/session/tracks.h"

namespace nuvio::controller {

namespace {

constexpr size_t kMaxReason = 300;

int64_t unix_ms() {
    return std::chrono::duration_cast<std::chrono::milliseconds>(
               std::chrono::system_clock::now().time_since_epoch())
        .count();
}

}  // namespace

bool Channels::opened(std::string_view token, const std::shared_ptr<ChannelLink>& link) {
    const std::scoped_lock lock(m_house.mutex);
    const Session session = m_house.sessions.of_token(token);
    if (session.id.empty() || m_house.is_closed) {
        return false;
    }
    Entry& entry = *m_house.devices.try_emplace(session.device).first;
    Device& device = entry.second;
    if (session.is_joined) {
        join(entry, session.id, link);
        return true;
    }
    if (device.offered_link != nullptr) {
        device.offered_link->close();
    }
    device.offered_link = link;
    device.offered_session = session.id;
    return true;
}

void Channels::join(Entry& entry, const std::string& session, std::shared_ptr<ChannelLink> link) {
    Device& device = entry.second;
    if (device.link != nullptr) {
        device.link->close();
    }
    m_house.sessions.join(session);
    device.link = std::move(link);
    device.link_session = session;
    device.has_gone_silent = false;
    device.owner = Owner::us;
    device.state = DeviceState(m_house.sessions.of(entry.first).here);
    device.is_bit_exact = false;
    m_house.change();
}

void Channels::said(const ChannelLink* link, std::string_view text) {
    const JsonPtr message = parse_json(text);
    const std::string type = text_member(message.get(), "type").value_or("");
    bool is_joined_now = false;
    {
        const std::scoped_lock lock(m_house.mutex);
        Entry* const entry = entry_of(link);
        is_joined_now = type == "hello" && entry != nullptr && entry->second.link.get() != link;
        if (entry == nullptr || !take(link, *entry, type, message.get())) {
            return;
        }
        m_house.change();
    }
    if (type == "goodbye" || is_joined_now) {
        m_house.write_sessions();
    } else if (type == "track" || type == "queue") {
        judge_track(link);
    }
}

// False: nothing in it was understood.
bool Channels::take(const ChannelLink* link, Entry& entry, const std::string& type,
                    const cJSON* message) {
    Device& device = entry.second;
    if (link == device.offered_link.get()) {
        return take_of_offered(entry, type, message);
    }
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
    } else {
        note_progress(device, type);
    }
    return true;
}

// A device that joins it says hello, one that does not says why. False as above.
bool Channels::take_of_offered(Entry& entry, const std::string& type, const cJSON* message) {
    Device& device = entry.second;
    const Asked* const wanted = device.waiting();
    if (type == "hello") {
        join(entry, device.offered_session, std::exchange(device.offered_link, nullptr));
    } else if (type == "error" && wanted != nullptr && wanted->session == device.offered_session) {
        const std::string reason = text_member(message, "reason").value_or("");
        device.fail(wanted->title + ": " + std::string(beginning(reason, kMaxReason)));
    } else if (type == "goodbye") {
        m_house.sessions.end(device.offered_session);
        device.offered_link.reset();
    } else {
        return false;
    }
    return true;
}

void Channels::note_progress(Device& device, const std::string& type) {
    if (type == "queue") {
        Commands::read_rest(device);
    } else if (type == "error") {
        device.fail(device.state.problem());
    }
    if (device.is_asked_heard()) {
        device.put_off();
    }
    device.link->set_playing(device.state.is_playing());
}

// What ended the session may be the next one from here, whose channel is about to open.
void Channels::end(Entry& entry, Owner next) {
    Device& device = entry.second;
    m_house.sessions.end(device.link_session);
    if (!m_house.sessions.has(entry.first)) {
        device.owner = next;
        device.taken.reset();
    }
    device.link.reset();
    device.state = {};
}

// Whose device plays now is asked of it: it may be gone, or play on by itself.
void Channels::closed(const ChannelLink* link, bool is_silent) {
    const std::scoped_lock lock(m_house.mutex);
    Entry* const entry = entry_of(link);
    if (entry == nullptr) {
        return;
    }
    Device& device = entry->second;
    if (link == device.offered_link.get()) {
        device.offered_link.reset();
        return;
    }
    device.link.reset();
    device.has_gone_silent = is_silent;
    device.state.freeze(is_silent ? device.state.told_at() : DeviceState::Clock::now());
    device.reach = Reach::asking;
    m_house.errands[entry->first] = {};
    m_commands.fail_all_of(entry->first);
    m_house.change();
}

Channels::Entry* Channels::entry_of(const ChannelLink* link) {
    const auto found = std::ranges::find_if(m_house.devices, [link](const Entry& entry) {
        return entry.second.link.get() == link || entry.second.offered_link.get() == link;
    });
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
        track_id = queued != nullptr ? track_id_of(queued->url) : 0;
    }
    std::optional<Track> file;
    try {
        file = track_id != 0 ? m_library.view().track(track_id) : std::nullopt;
        if (file) {
            m_library.note_heard(*file);
        }
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
