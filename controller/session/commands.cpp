#include "controller/session/commands.h"

#include <algorithm>
#include <set>
#include <utility>

namespace nuvio::controller {

namespace {

// Devices answer these before they tell what came of them: who asks next is to see that. A volume
// that was so before is not told again.
const std::set<std::string> kChangesQueue{"queue_replace", "queue_insert", "queue_remove",
                                          "queue_move"};
const std::set<std::string> kChangesState{"volume", "seek", "queue_jump"};
// What is meant to be heard soon, and what is not to be waited for any longer.
constexpr char kPlay[] = "play";
const std::set<std::string> kMovesOn{"next", "previous", "queue_jump"};
const std::set<std::string> kPutsOff{"pause", "stop", "leave"};
constexpr char kNoAnswer[] = "the device has not answered in time";
// A session that has just begun opens its channel a moment later.
constexpr std::chrono::milliseconds kChannelPatience{3000};
constexpr std::chrono::milliseconds kQueuePatience{1000};
constexpr std::chrono::milliseconds kStatePatience{300};

// What is pressed takes the place of what went wrong before.
void note_pressed(Device& device, const std::string& name) {
    if (name == kPlay && device.waiting() == nullptr && !device.state.is_playing()) {
        device.ask_for({device.state.current_title(), device.link_session, {}});
    } else if (kMovesOn.contains(name)) {
        device.problem.clear();
    } else if (kPutsOff.contains(name)) {
        device.put_off();
    }
}

const char* why_not(const Device& device) {
    if (device.waiting() != nullptr) {
        return "the device has not begun to play yet";
    }
    switch (device.owner) {
        case Owner::other:
            return "another controller uses the device; play something to take it over";
        case Owner::us:
            return "the device does not answer just now; it is expected back";
        case Owner::nobody:
            break;
    }
    return "nothing plays there; play something first";
}

}  // namespace

Outcome Commands::run(const std::string& id, const std::string& name, JsonPtr arguments,
                      Clock::time_point latest, Until until) {
    const auto within = [latest](Clock::duration patience) {
        return std::min(Clock::now() + patience, latest);
    };
    std::unique_lock lock(m_house.mutex);
    m_house.on_change.wait_until(lock, within(kChannelPatience), [&] {
        const Device* const device = m_house.find(id);
        return m_house.is_closed || device == nullptr || device->link != nullptr ||
               (device->owner != Owner::us && device->waiting() == nullptr);
    });
    Device* const device = m_house.find(id);
    if (device == nullptr || device->link == nullptr) {
        return {false, device == nullptr ? "no such device" : why_not(*device)};
    }
    if (Clock::now() >= latest) {
        return {false, kNoAnswer};
    }
    const std::string command_id = std::to_string(++m_count);
    m_waiting[command_id] = {id, std::nullopt};
    const std::string session = device->link_session;
    const int64_t revision = device->state.revision();
    const int64_t states = device->state.state_count();
    note_pressed(*device, name);
    send(*device, name.c_str(), command_id, std::move(arguments));
    device->link->expect_word();
    m_house.change();
    const Outcome outcome = wait_for_answer(lock, command_id, within(kPatience));
    const bool is_waited_for = outcome.is_ok && until == Until::effect;
    if (is_waited_for && kChangesQueue.contains(name)) {
        m_house.on_change.wait_until(lock, within(kQueuePatience), [&] {
            const Device* const now = m_house.find(id);
            return m_house.is_closed || now == nullptr || now->state.revision() != revision;
        });
    } else if (is_waited_for && kChangesState.contains(name)) {
        m_house.on_change.wait_until(lock, within(kStatePatience), [&] {
            const Device* const now = m_house.find(id);
            return m_house.is_closed || now == nullptr || now->state.state_count() != states;
        });
    }
    if (!outcome.is_ok && name == kPlay) {
        fail(id, outcome.reason);
    }
    if (outcome.is_ok && name == "leave") {
        m_house.sessions.end(session);
        lock.unlock();
        m_house.write_sessions();
    }
    return outcome;
}

// What was asked for is not to be waited for.
void Commands::fail(const std::string& id, const std::string& reason) {
    Device* const device = m_house.find(id);
    if (device != nullptr && device->waiting() != nullptr) {
        device->fail(reason);
        m_house.change();
    }
}

Outcome Commands::wait_for_answer(std::unique_lock<std::mutex>& lock, const std::string& id,
                                  Clock::time_point latest) {
    m_house.on_change.wait_until(
        lock, latest, [&] { return m_house.is_closed || m_waiting[id].outcome.has_value(); });
    const auto waiting = m_waiting.extract(id);
    return waiting.mapped().outcome.value_or(Outcome{false, kNoAnswer});
}

void Commands::send(const Device& device, const char* name, const std::string& id,
                    JsonPtr arguments) {
    add(arguments.get(), "type", "command");
    add(arguments.get(), "id", id);
    add(arguments.get(), "command", name);
    device.link->send(print_json(arguments.get()));
}

void Commands::read_rest(const Device& device) {
    const std::optional<int64_t> place = device.state.missing_place();
    if (place && !device.is_being_filled && device.link != nullptr) {
        JsonPtr arguments = new_object();
        add(arguments.get(), "first", *place);
        send(device, "queue_read", "rest", std::move(arguments));
    }
}

void Commands::take_answer(const cJSON* message) {
    const auto waiting = m_waiting.find(text_member(message, "id").value_or(""));
    if (waiting == m_waiting.end()) {
        return;
    }
    if (bool_member(message, "ok").value_or(false)) {
        waiting->second.outcome = Outcome{true, ""};
    } else {
        waiting->second.outcome =
            Outcome{false, text_member(message, "reason").value_or("the device refused")};
    }
}

void Commands::fail_all_of(const std::string& device) {
    for (auto& [id, waiting] : m_waiting) {
        if (waiting.device == device && !waiting.outcome) {
            waiting.outcome =
                Outcome{false, "the device does not answer any more, or its connection broke"};
        }
    }
}

}  // namespace nuvio::controller
