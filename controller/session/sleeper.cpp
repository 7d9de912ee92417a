#include "controller/session/sleeper.h"

#include <ctime>

#include "controller/base/log.h"

namespace nuvio::controller {

namespace {

using Clock = Commands::Clock;
using std::chrono::milliseconds;
using std::chrono::seconds;

// Before the next track has begun.
constexpr milliseconds kBeforeEnd{150};
// A track that goes so much before its end was skipped.
constexpr seconds kSkipped{2};
constexpr char kNoRoom[] = "too many devices have names or timers here";

Clock::time_point from_unix(int64_t at) {
    return Clock::now() + seconds(at - std::time(nullptr));
}

}  // namespace

Sleeper::Sleeper(HouseState& house, Commands& commands)
    : m_house(house), m_commands(commands), m_thread([this] { run(); }) {}

Sleeper::~Sleeper() {
    m_thread.join();
}

Outcome Sleeper::set(const std::string& id, std::chrono::minutes in) {
    {
        const std::scoped_lock lock(m_house.mutex);
        const Device* const device = m_house.find(id);
        if (in.count() > 0 && (device == nullptr || device->link == nullptr)) {
            return {false, "nothing of this controller plays there"};
        }
        const int64_t at = std::time(nullptr) + seconds(in).count();
        if (!m_house.sessions.set_sleep(
                id, in.count() == 0 ? std::nullopt : std::optional(Sleep{.at = at}))) {
            return {false, kNoRoom};
        }
        m_house.change();
    }
    m_house.write_sessions();
    return {true, {}};
}

Outcome Sleeper::set_at_end(const std::string& id) {
    {
        const std::scoped_lock lock(m_house.mutex);
        const Device* const device = m_house.find(id);
        if (device == nullptr || device->link == nullptr ||
            device->state.track().duration_ms == 0) {
            return {false, "no track that ends is heard there"};
        }
        m_ends.erase(id);
        if (!m_house.sessions.set_sleep(id, Sleep{.item = device->state.track().item})) {
            return {false, kNoRoom};
        }
        m_house.change();
    }
    m_house.write_sessions();
    return {true, {}};
}

void Sleeper::run() {
    std::unique_lock lock(m_house.mutex);
    while (!m_house.is_closed) {
        const std::optional<Due> next = next_due();
        if (!next) {
            m_house.on_change.wait(lock);
        } else if (next->at > Clock::now()) {
            const Time at = next->at;
            m_house.on_change.wait_until(lock, at);
        } else {
            fall_asleep(lock, next->device);
        }
    }
}

std::optional<Sleeper::Due> Sleeper::next_due() {
    std::optional<Due> next;
    for (const auto& [id, wishes] : m_house.sessions.wishes()) {
        const Device* const device = m_house.find(id);
        const std::optional<Sleep>& sleep = wishes.sleep;
        const std::optional<Time> at =
            device != nullptr && sleep ? due(id, *device, *sleep) : std::nullopt;
        if (at && (!next || *at < next->at)) {
            next = Due{id, *at};
        }
    }
    return next;
}

// None: it can't be told yet. What is over, as the session is or the track, is due.
std::optional<Sleeper::Time> Sleeper::due(const std::string& id, const Device& device,
                                          const Sleep& sleep) {
    if (device.link == nullptr) {
        const bool is_over = device.reach == Reach::reached && device.owner != Owner::us &&
                             device.waiting() == nullptr;
        return is_over ? std::optional(Clock::now()) : std::nullopt;
    }
    if (device.state.state_count() == 0) {  // its channel has just opened
        return std::nullopt;
    }
    return sleep.item ? end_of_track(id, device.state, sleep) : std::optional(from_unix(sleep.at));
}

// Of another track than the one before it is told by where that was: it was skipped, or its end was
// missed.
std::optional<Sleeper::Time> Sleeper::end_of_track(const std::string& id, const DeviceState& state,
                                                   const Sleep& sleep) {
    const Time now = Clock::now();
    if (!state.is_track_heard()) {
        return std::nullopt;
    }
    if (state.track().item != sleep.item) {
        const auto end = m_ends.find(id);
        if (end == m_ends.end() || now + kSkipped > end->second) {
            return now;
        }
        m_house.sessions.set_sleep(id, Sleep{.item = state.track().item});
    }
    const Time end = now + milliseconds(state.track().duration_ms - state.position_ms(now));
    m_ends[id] = end;
    return state.is_playing() ? std::optional(end - kBeforeEnd) : std::nullopt;
}

void Sleeper::fall_asleep(std::unique_lock<std::mutex>& lock, const std::string& id) {
    const Device* const device = m_house.find(id);
    const bool plays = device != nullptr && device->link != nullptr && device->state.is_playing();
    m_house.sessions.set_sleep(id, std::nullopt);
    m_ends.erase(id);
    m_house.change();
    lock.unlock();
    if (plays) {
        const Outcome outcome = m_commands.run(id, "pause", new_object());
        if (!outcome.is_ok) {
            log_line(LogLevel::info, "A device was to sleep, but " + outcome.reason);
        }
    }
    m_house.write_sessions();
    lock.lock();
}

}  // namespace nuvio::controller
