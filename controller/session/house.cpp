#include "controller/session/house.h"

#include <algorithm>
#include <array>

#include "common/text.h"
#include "controller/base/log.h"
#include "controller/device/http_client.h"

namespace nuvio::controller {

namespace {

constexpr long kLookMs = 4'000;
constexpr int kTries = 5;
constexpr std::chrono::seconds kPause{2};
// Devices that are away are remembered while the controller runs, so many at most.
constexpr size_t kMaxDevices = 128;

}  // namespace

House::House(Library& library, Changes& changes, const std::string& state_folder, uint16_t port)
    : m_library(library),
      m_changes(changes),
      m_port(port),
      m_sessions(state_folder + "/sessions.json"),
      m_errand_thread([this] { run_errands(); }) {}

House::~House() {
    close();
    m_errand_thread.join();
}

// ---- Changes ------------------------------------------------------------------------------------

void House::change() {
    m_changes.announce();
    m_on_change.notify_all();
}

void House::close() {
    const std::scoped_lock lock(m_mutex);
    m_is_closed = true;
    m_on_change.notify_all();
}

// ---- Who is there -------------------------------------------------------------------------------

void House::set_found(const std::vector<FoundDevice>& devices) {
    const std::scoped_lock lock(m_mutex);
    for (auto& [id, device] : m_devices) {
        device.is_present = false;
    }
    for (const FoundDevice& found : devices) {
        if (!m_devices.contains(found.id) && m_devices.size() >= kMaxDevices) {
            std::erase_if(m_devices, [](const auto& entry) {
                return !entry.second.is_present && entry.second.link == nullptr;
            });
        }
        Device& device = m_devices[found.id];
        device.is_present = true;
        if (device.found != found || device.reach == Reach::failed) {
            device.found = found;
            device.reach = Reach::asking;
            m_errands[found.id] = {};
        }
    }
    change();
}

void House::look_again() {
    const std::scoped_lock lock(m_mutex);
    for (const auto& [id, device] : m_devices) {
        if (device.is_present) {
            m_errands[id] = {};
        }
    }
    m_on_change.notify_all();
}

// Errand thread.
void House::run_errands() {
    std::unique_lock lock(m_mutex);
    while (true) {
        m_on_change.wait(lock, [this] { return m_is_closed || !m_errands.empty(); });
        if (m_is_closed) {
            return;
        }
        const auto next = std::ranges::min_element(
            m_errands, {}, [](const auto& errand) { return errand.second; });
        const auto due = next->second;
        if (due > DeviceState::Clock::now()) {
            m_on_change.wait_until(lock, due);
            continue;
        }
        const std::string id = next->first;
        m_errands.erase(next);
        const auto device = m_devices.find(id);
        if (device != m_devices.end()) {
            const FoundDevice found = device->second.found;
            lock.unlock();
            look_at(found);
            lock.lock();
        }
    }
}

void House::look_at(const FoundDevice& found) {
    const HttpAnswer display = ask_device(found, "GET", "get-display-info", {}, kLookMs);
    const HttpAnswer connect =
        display.status == 200 ? ask_device(found, "GET", "get-connect-info", {}, kLookMs) : display;
    const JsonPtr info = parse_json(display.body);
    const JsonPtr session = parse_json(connect.body);
    const std::scoped_lock lock(m_mutex);
    const auto entry = m_devices.find(found.id);
    if (entry == m_devices.end()) {
        return;
    }
    Device& device = entry->second;
    if (connect.status != 200 || info == nullptr || session == nullptr) {
        device.reach = Reach::failed;
        // It may have been announced a moment before it listens.
        if (device.is_present && ++device.tries <= kTries) {
            m_errands.try_emplace(found.id, DeviceState::Clock::now() + kPause * device.tries);
        }
        device.failure =
            connect.status == 0 ? connect.failure : "answered " + std::to_string(connect.status);
    } else {
        device.reach = Reach::reached;
        device.tries = 0;
        device.failure.clear();
        device.brand = text_member(info.get(), "brand_display_name").value_or("");
        device.model = text_member(info.get(), "model_display_name").value_or("");
        device.quality = text_member(info.get(), "max_audio_quality").value_or("");
        device.kind = text_member(info.get(), "type").value_or("");
        const std::string current = text_member(session.get(), "current_session_id").value_or("");
        device.owner = current.empty()              ? Owner::nobody
                       : is_ours(found.id, current) ? Owner::us
                                                    : Owner::other;
    }
    change();
}

bool House::is_ours(const std::string& id, const std::string& session) const {
    const auto own = m_sessions.all().find(id);
    return own != m_sessions.all().end() && own->second.id == session;
}

// ---- Describing ---------------------------------------------------------------------------------

void House::describe(cJSON* object, const std::string& id, const Device& device) const {
    constexpr std::array kReach{"asking", "reached", "failed"};
    constexpr std::array kOwner{"nobody", "us", "other"};
    add(object, "id", id);
    add(object, "name", device.found.name);
    add(object, "brand", device.brand);
    add(object, "model", device.model);
    add(object, "quality", device.quality);
    add(object, "kind", device.kind);
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

JsonPtr House::describe_devices() const {
    const std::scoped_lock lock(m_mutex);
    std::vector<std::pair<std::string, const std::string*>> order;
    order.reserve(m_devices.size());
    for (const auto& [id, device] : m_devices) {
        order.emplace_back(device.found.name, &id);
    }
    std::ranges::sort(order);
    JsonPtr all = new_array();
    for (const auto& [name, id] : order) {
        JsonPtr object = new_object();
        describe(object.get(), *id, m_devices.at(*id));
        append(all.get(), std::move(object));
    }
    return all;
}

std::string House::device_named(const std::string& name) const {
    const std::scoped_lock lock(m_mutex);
    if (m_devices.contains(name)) {
        return name;
    }
    std::string found;
    for (const auto& [id, device] : m_devices) {
        if (equals_ignoring_case(device.found.name, name) && device.is_present) {
            if (!found.empty()) {
                return {};
            }
            found = id;
        }
    }
    return found;
}

JsonPtr House::describe_queue(const std::string& id) const {
    const std::scoped_lock lock(m_mutex);
    const auto device = m_devices.find(id);
    return device != m_devices.end() ? device->second.state.describe_queue() : nullptr;
}

// ---- What devices ask ---------------------------------------------------------------------------

std::string House::device_of_token(std::string_view token) const {
    const std::scoped_lock lock(m_mutex);
    return m_sessions.device_of_token(token);
}

std::optional<std::string> House::playlist(const std::string& session,
                                           std::string_view token) const {
    const std::scoped_lock lock(m_mutex);
    const auto found = m_sessions.all().find(m_sessions.device_of_token(token));
    if (found == m_sessions.all().end() || found->second.id != session ||
        found->second.playlist.empty()) {
        return std::nullopt;
    }
    return found->second.playlist;
}

}  // namespace nuvio::controller
