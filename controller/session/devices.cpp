#include "controller/session/devices.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <ctime>
#include <optional>
#include <string_view>
#include <utility>

#include "common/text.h"
#include "common/utf8.h"
#include "controller/session/tracks.h"

namespace nuvio::controller {

namespace {

constexpr std::chrono::seconds kPatience{4};
constexpr size_t kThreads = 4;
constexpr int kTries = 5;
constexpr std::chrono::seconds kPause{2};
constexpr std::chrono::seconds kAskedPause{20};
// Devices try for a minute to reach what they are to play.
constexpr std::chrono::seconds kLongestWait{90};
// Devices that are away are remembered while the controller runs, so many at most.
constexpr size_t kMaxDevices = 128;
constexpr size_t kMaxName = 63;  // bytes, as DNS-SD has it

// As devices are numbered, and nobody names one.
bool is_uuid(std::string_view text) {
    constexpr std::string_view kForm = "xxxxxxxx-xxxx-xxxx-xxxx-xxxxxxxxxxxx";
    return std::ranges::equal(text, kForm, [](char given, char wanted) {
        return wanted == '-' ? given == '-' : std::isxdigit(static_cast<unsigned char>(given)) != 0;
    });
}

std::string listed(std::vector<std::string> names) {
    constexpr size_t kMost = 20;
    std::ranges::sort(names);
    std::string text;
    for (size_t i = 0; i < std::min(names.size(), kMost); ++i) {
        text += (i > 0 ? ", " : "") + names[i];
    }
    return text + (names.size() > kMost ? " ..." : "");
}

void describe_device(cJSON* object, const std::string& id, const std::string& name,
                     const Device& device) {
    constexpr std::array kReach{"asking", "reached", "failed"};
    constexpr std::array kOwner{"nobody", "us", "other"};
    add(object, "id", id);
    add(object, "name", name);
    add(object, "announced_name", device.found.name);
    add(object, "brand", device.brand);
    add(object, "model", device.model);
    add(object, "quality", device.quality);
    add(object, "kind", device.kind);
    add(object, "state", name_of(condition_of(device.known())));
    add(object, "status", status_of(device.known()));
    add(object, "problem", device.problem);
    add(object, "problem_count", device.problem_count);
    if (device.asked) {
        JsonPtr asked = new_object();
        add(asked.get(), "title", device.asked->title);
        add(object, "asked", std::move(asked));
    }
    add(object, "present", device.is_present);
    add(object, "reach", kReach[static_cast<size_t>(device.reach)]);
    add(object, "failure", device.failure);
    add(object, "session", kOwner[static_cast<size_t>(device.owner)]);
    add(object, "connected", device.link != nullptr);
    add(object, "port", int{device.found.port});
    JsonPtr addresses = new_array();
    for (const std::string& address : device.found.addresses) {
        append(addresses.get(), address);
    }
    add(object, "addresses", std::move(addresses));
    if (device.owner == Owner::us) {
        device.state.describe(object, DeviceState::Clock::now());
        add(object, "bit_exact", device.is_bit_exact);
    }
}

void describe_sleep(cJSON* object, const std::optional<Sleep>& sleep) {
    if (!sleep) {
        return;
    }
    JsonPtr described = new_object();
    if (sleep->item) {
        add(described.get(), "at_end", true);
    } else {
        const int64_t left_s = std::max<int64_t>(0, sleep->at - std::time(nullptr));
        add(described.get(), "in_ms", left_s * 1000);
    }
    add(object, "sleep", std::move(described));
}

}  // namespace

Devices::Devices(HouseState& house) : m_house(house) {
    m_threads.reserve(kThreads);
    while (m_threads.size() < kThreads) {
        m_threads.emplace_back([this] { run(); });
    }
}

Devices::~Devices() {
    for (std::thread& thread : m_threads) {
        thread.join();
    }
}

void Devices::set_found(const std::vector<FoundDevice>& all) {
    const std::scoped_lock lock(m_house.mutex);
    for (auto& [id, device] : m_house.devices) {
        device.is_present = false;
    }
    for (const FoundDevice& found : all) {
        if (!m_house.devices.contains(found.id) && m_house.devices.size() >= kMaxDevices) {
            std::erase_if(m_house.devices, [](const auto& entry) {
                return !entry.second.is_present && entry.second.link == nullptr;
            });
        }
        Device& device = m_house.devices[found.id];
        device.is_present = true;
        if (device.found != found || device.reach == Reach::failed) {
            device.found = found;
            device.reach = Reach::asking;
            m_house.errands[found.id] = {};
        }
    }
    m_house.change();
}

void Devices::ask_again() {
    const std::scoped_lock lock(m_house.mutex);
    for (const auto& [id, device] : m_house.devices) {
        if (device.is_present) {
            m_house.errands[id] = {};
        }
    }
    m_house.on_change.notify_all();
}

void Devices::run() {
    std::unique_lock lock(m_house.mutex);
    while (!m_house.is_closed) {
        const auto next = next_errand();
        if (next == m_house.errands.end()) {
            m_house.on_change.wait(lock);
        } else if (next->second > DeviceState::Clock::now()) {
            const auto due = next->second;
            m_house.on_change.wait_until(lock, due);
        } else {
            const std::string id = next->first;
            m_house.errands.erase(next);
            if (const Device* const device = m_house.find(id)) {
                const FoundDevice found = device->found;
                m_asked.insert(id);
                lock.unlock();
                ask(found);
                lock.lock();
                m_asked.erase(id);
            }
        }
    }
}

// The one that is due first. A device is asked by one thread at a time, so that what it says last
// counts.
std::map<std::string, DeviceState::Clock::time_point>::iterator Devices::next_errand() {
    auto& errands = m_house.errands;
    auto next = errands.end();
    for (auto each = errands.begin(); each != errands.end(); ++each) {
        if (!m_asked.contains(each->first) &&
            (next == errands.end() || each->second < next->second)) {
            next = each;
        }
    }
    return next;
}

void Devices::ask(const FoundDevice& found) {
    const HttpAnswer display = ask_device(found, "GET", "get-display-info", {}, kPatience);
    const HttpAnswer connect = display.status == 200
                                   ? ask_device(found, "GET", "get-connect-info", {}, kPatience)
                                   : display;
    if (learn(found.id, display, connect)) {
        m_house.write_sessions();
    }
}

// What was asked for may never come, without a word from the device: then it is asked until
// kLongestWait, not for ever.
void Devices::give_up_waiting(const std::string& id, Device& device) {
    const Asked* const wanted = device.waiting();
    if (wanted == nullptr) {
        return;
    }
    if (DeviceState::Clock::now() - wanted->since < kLongestWait) {
        m_house.errands.try_emplace(id, DeviceState::Clock::now() + kAskedPause);
    } else {
        device.fail(wanted->title + ": nothing is heard of it");
    }
}

// True: other sessions are to be kept than before.
bool Devices::learn(const std::string& id, const HttpAnswer& display, const HttpAnswer& connect) {
    const JsonPtr info = parse_json(display.body);
    const JsonPtr session = parse_json(connect.body);
    const std::scoped_lock lock(m_house.mutex);
    Device* const device = m_house.find(id);
    if (device == nullptr) {
        return false;
    }
    bool is_over = false;
    if (connect.status != 200 || info == nullptr || session == nullptr) {
        device->reach = Reach::failed;
        // It may have been announced a moment before it listens.
        if (device->is_present && ++device->tries <= kTries) {
            m_house.errands.try_emplace(id, DeviceState::Clock::now() + kPause * device->tries);
        }
        device->failure =
            connect.status == 0 ? connect.failure : "answered " + std::to_string(connect.status);
    } else {
        device->reach = Reach::reached;
        device->tries = 0;
        device->failure.clear();
        device->brand = text_member(info.get(), "brand_display_name").value_or("");
        device->model = text_member(info.get(), "model_display_name").value_or("");
        device->quality = text_member(info.get(), "max_audio_quality").value_or("");
        device->kind = text_member(info.get(), "type").value_or("");
        const std::string current = text_member(session.get(), "current_session_id").value_or("");
        device->has_gone_silent = false;
        device->owner = current.empty()                     ? Owner::nobody
                        : m_house.sessions.has(id, current) ? Owner::us
                                                            : Owner::other;
        is_over = device->owner == Owner::us && m_house.sessions.of(id).id != current;
        if (is_over) {
            m_house.sessions.join(current);
        }
        if (device->owner == Owner::us && device->link == nullptr) {
            // Where its session ends before its channel is back, nobody says so.
            m_house.errands.try_emplace(id, DeviceState::Clock::now() + kAskedPause);
        }
        // Taken over while its channel was broken, so that no goodbye came.
        is_over = (!current.empty() && device->link == nullptr && current != device->link_session &&
                   m_house.sessions.end(device->link_session)) ||
                  is_over;
    }
    give_up_waiting(id, *device);
    m_house.change();
    return is_over;
}

Devices::Named Devices::named(const std::string& name) const {
    const std::scoped_lock lock(m_house.mutex);
    if (is_uuid(name) && m_house.devices.contains(name)) {
        return {name, {}};
    }
    std::vector<std::string> ids;
    std::vector<std::string> away;
    std::vector<std::string> names;
    for (const auto& [id, device] : m_house.devices) {
        const std::string& own = m_house.name_of(id, device);
        if (!is_uuid(name) && (equals_ignoring_case(own, name) || id == name)) {
            (device.is_present ? ids : away).push_back(id);
        }
        if (device.is_present) {
            names.push_back(own);
        }
    }
    if (ids.empty()) {
        ids = std::move(away);
    }
    if (ids.size() == 1) {
        return {ids.front(), {}};
    }
    if (ids.size() > 1) {
        return {{}, "several devices are called '" + name + "', by id: " + listed(std::move(ids))};
    }
    return {
        {},
        "no device '" + name + "'; " +
            (names.empty() ? "none is on the network" : "there are: " + listed(std::move(names)))};
}

Outcome Devices::rename(const std::string& id, const std::string& name) {
    {
        const std::scoped_lock lock(m_house.mutex);
        const std::string shown = printable(name);
        if (!m_house.sessions.set_name(id, std::string(beginning(trim(shown), kMaxName)))) {
            return {false, "too many devices have names or timers here"};
        }
        m_house.change();
    }
    m_house.write_sessions();
    return {true, {}};
}

JsonPtr Devices::describe(const std::string& wanted) const {
    const std::scoped_lock lock(m_house.mutex);
    std::vector<std::pair<std::string, const std::string*>> order;
    order.reserve(m_house.devices.size());
    for (const auto& [id, device] : m_house.devices) {
        if (wanted.empty() || id == wanted) {
            order.emplace_back(m_house.name_of(id, device), &id);
        }
    }
    std::ranges::sort(order);
    JsonPtr all = new_array();
    for (const auto& [name, id] : order) {
        JsonPtr object = new_object();
        describe_device(object.get(), *id, name, m_house.devices.at(*id));
        describe_sleep(object.get(), m_house.sessions.wishes_of(*id).sleep);
        append(all.get(), std::move(object));
    }
    return all;
}

std::optional<std::vector<Library::Queued>> Devices::queued(const std::string& id) const {
    const std::scoped_lock lock(m_house.mutex);
    const Device* const device = m_house.find(id);
    if (device == nullptr || !device->state.has_queue()) {
        return std::nullopt;
    }
    std::vector<Library::Queued> items;
    for (const auto& [place, item] : device->state.queue()) {
        items.push_back({track_id_of(item.url), item.url, item.title});
    }
    return items;
}

JsonPtr Devices::describe_queue(const std::string& id) const {
    const std::scoped_lock lock(m_house.mutex);
    const Device* const device = m_house.find(id);
    return device != nullptr ? device->state.describe_queue() : nullptr;
}

}  // namespace nuvio::controller
