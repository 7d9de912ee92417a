#include "controller/session/alarms.h"

#include <algorithm>
#include <ctime>
#include <system_error>
#include <utility>

#include "controller/base/log.h"

namespace nuvio::controller {

namespace {

using Clock = Commands::Clock;
using std::chrono::seconds;

constexpr int64_t kClockIsLate = 180;  // seconds after boot
constexpr seconds kDevicePatience{300};
constexpr seconds kAskAgain{20};
// The device gives up a while before.
constexpr seconds kSoundPatience{100};
constexpr char kFavourites[] = "favourites:tracks";

int64_t seconds_since_boot() {
    timespec up{};
    clock_gettime(CLOCK_BOOTTIME, &up);
    return up.tv_sec;
}

bool is_reached(const Device& device) {
    return device.is_present && (device.link != nullptr || device.reach == Reach::reached);
}

// What is replaced can be put back only then; a channel comes back a moment after a restart.
bool is_queue_known(const Device& device) {
    return device.owner != Owner::us || (device.link != nullptr && device.state.has_queue());
}

JsonPtr describe_days(unsigned days) {
    JsonPtr names = new_array();
    for (size_t day = 0; day < kDays.size(); ++day) {
        if ((days >> day & 1U) != 0) {
            append(names.get(), kDays[day]);
        }
    }
    return names;
}

JsonPtr describe_alarm(const Alarm& alarm) {
    JsonPtr object = new_object();
    add(object.get(), "id", alarm.id);
    add(object.get(), "device", alarm.device);
    add(object.get(), "device_name", alarm.device_name);
    add(object.get(), "time", minute_text(alarm.time.minute));
    add(object.get(), "days", describe_days(alarm.time.days));
    add(object.get(), "what", alarm.what);
    add(object.get(), "title", alarm.title);
    add(object.get(), "on", alarm.is_on);
    add(object.get(), "failure", alarm.failure);
    if (alarm.volume) {
        add(object.get(), "volume", *alarm.volume);
    }
    const int64_t now = std::time(nullptr);
    const std::optional<int64_t> due = next_due(alarm.time, std::max(now, alarm.since));
    if (alarm.is_on && due) {
        add(object.get(), "in_ms", (*due - now) * 1000);
    }
    return object;
}

}  // namespace

Alarms::Alarms(HouseState& house, Commands& commands, Queues& queues, Library& library)
    : m_house(house), m_commands(commands), m_queues(queues), m_library(library), m_thread([this] {
          run();
      }) {}

Alarms::~Alarms() {
    m_timer.wake_up();
    m_thread.join();
}

std::optional<Alarm> Alarms::find(int64_t id) const {
    const std::scoped_lock lock(m_house.mutex);
    const Alarm* const alarm = m_house.alarms.find(id);
    return alarm != nullptr ? std::optional(*alarm) : std::nullopt;
}

int64_t Alarms::set(Alarm alarm) {
    const int64_t now = std::time(nullptr);
    int64_t id = 0;
    {
        const std::scoped_lock lock(m_house.mutex);
        take_name(&alarm);
        alarm.failure.clear();
        alarm.since = is_clock_known() ? now : 0;
        id = m_house.alarms.put(std::move(alarm));
        m_house.change();
    }
    m_timer.wake_up();
    m_house.write_alarms();
    return id;
}

bool Alarms::remove(int64_t id) {
    {
        const std::scoped_lock lock(m_house.mutex);
        if (!m_house.alarms.remove(id)) {
            return false;
        }
        m_house.change();
    }
    m_house.write_alarms();
    return true;
}

JsonPtr Alarms::describe(const std::string& wanted) const {
    std::vector<Alarm> alarms;
    {
        const std::scoped_lock lock(m_house.mutex);
        alarms = m_house.alarms.all();
        for (Alarm& alarm : alarms) {
            take_name(&alarm);
        }
    }
    JsonPtr all = new_array();
    for (const Alarm& alarm : alarms) {
        if (wanted.empty() || wanted == alarm.device) {
            append(all.get(), describe_alarm(alarm));
        }
    }
    return all;
}

// What its device is called now, where that is known.
void Alarms::take_name(Alarm* alarm) const {
    if (const Device* const device = m_house.find(alarm->device)) {
        alarm->device_name = m_house.name_of(alarm->device, *device);
    }
}

// ---- When ---------------------------------------------------------------------------------------

void Alarms::run() {
    for (bool is_closed = false; !is_closed;) {
        std::optional<int64_t> next;
        bool has_changed = false;
        std::vector<std::thread> over;
        {
            std::unique_lock lock(m_house.mutex);
            is_closed = m_house.is_closed;
            if (is_closed) {
                m_house.on_change.wait(lock, [this] { return m_ringing.empty(); });
            } else {
                next = ring_due(&has_changed);
            }
            over.swap(m_over);
        }
        for (std::thread& thread : over) {
            thread.join();
        }
        if (has_changed) {
            m_house.write_alarms();
        }
        if (!is_closed && m_timer.wait(next)) {
            m_is_clock_set = true;
        }
    }
}

bool Alarms::is_clock_known() const {
    return m_is_clock_set || seconds_since_boot() >= kClockIsLate;
}

// When there is something to do next.
std::optional<int64_t> Alarms::ring_due(bool* has_changed) {
    const int64_t now = std::time(nullptr);
    if (!is_clock_known()) {
        return now + kClockIsLate - seconds_since_boot();
    }
    std::optional<int64_t> next;
    for (Alarm& alarm : m_house.alarms.all()) {
        if (!alarm.is_on || m_ringing.contains(alarm.id)) {
            continue;
        }
        const int64_t since = alarm.since;
        const std::optional<int64_t> due = due_of(&alarm, now);
        *has_changed = *has_changed || alarm.since != since;
        if (due && *due <= now) {
            begin_to_ring(&alarm, *due);
        } else if (due) {
            next = std::min(next.value_or(*due), *due);
        }
    }
    return next;
}

// The kept one is as it is until it has rung: where this controller ends before, it rings once
// more.
void Alarms::begin_to_ring(Alarm* alarm, int64_t due) {
    try {
        m_ringing.try_emplace(alarm->id, [this, ringing = *alarm, due] { ring(ringing, due); });
    } catch (const std::system_error& error) {
        note_rung(alarm, due, std::string("It could not begin: ") + error.what());
    }
}

// ---- Ringing ------------------------------------------------------------------------------------

void Alarms::ring(const Alarm& alarm, int64_t due) {
    std::string failure = wait_for_device(alarm);
    if (failure.empty()) {
        failure = play_something(alarm);
    }
    {
        const std::scoped_lock lock(m_house.mutex);
        Alarm* const kept = m_house.alarms.find(alarm.id);
        // Another one by now, it was not this one that rang, and nobody waits for it.
        if (!m_house.is_closed && kept != nullptr && kept->since == alarm.since) {
            note_rung(kept, due, failure);
        } else {
            failure.clear();
        }
        m_over.push_back(std::move(m_ringing.extract(alarm.id).mapped()));
        m_house.change();
    }
    if (!failure.empty()) {
        log_line(LogLevel::error, "An alarm: " + failure);
    }
    m_house.write_alarms();
    m_timer.wake_up();
}

// Empty: it is there, and answers.
std::string Alarms::wait_for_device(const Alarm& alarm) {
    const auto begin = Clock::now();
    const auto latest = begin + kDevicePatience;
    std::string failure = alarm.device_name + " was not there at " + minute_text(alarm.time.minute);
    std::unique_lock lock(m_house.mutex);
    while (!m_house.is_closed && Clock::now() < latest && is_still_wanted(alarm)) {
        const Device* const device = m_house.find(alarm.device);
        const bool is_there = device != nullptr && is_reached(*device);
        if (is_there && (is_queue_known(*device) || Clock::now() >= begin + kAskAgain)) {
            return {};
        }
        if (!is_there) {
            say(alarm, failure);
        }
        if (device != nullptr && device->is_present) {
            m_house.errands.try_emplace(alarm.device, Clock::now() + kAskAgain);
        }
        m_house.on_change.wait_until(lock, std::min(latest, Clock::now() + kAskAgain));
    }
    return failure;
}

bool Alarms::is_still_wanted(const Alarm& alarm) const {
    const Alarm* const kept = m_house.alarms.find(alarm.id);
    return kept != nullptr && kept->is_on && kept->since == alarm.since;
}

// While it may yet come.
void Alarms::say(const Alarm& alarm, const std::string& failure) {
    Alarm* const kept = m_house.alarms.find(alarm.id);
    if (kept != nullptr && kept->failure != failure) {
        kept->failure = failure;
        m_house.change();
    }
}

// Who wants to be woken is: by something else that is known to be there, if need be.
std::string Alarms::play_something(const Alarm& alarm) {
    std::string failure = play(alarm, alarm.what);
    {
        const std::scoped_lock lock(m_house.mutex);
        if (failure.empty() || !is_still_wanted(alarm)) {
            return failure;
        }
    }
    std::vector<std::string> others{kFavourites};
    try {
        for (const Album& album : m_library.albums_heard({0, 1})) {
            others.push_back("album:" + std::to_string(album.id));
        }
    } catch (const DatabaseError&) {
        return failure;
    }
    const bool is_something_heard = std::ranges::any_of(
        others, [&](const std::string& other) { return play(alarm, other).empty(); });
    return failure + (is_something_heard ? "; something else was played" : "");
}

// Empty: it is heard.
std::string Alarms::play(const Alarm& alarm, const std::string& what) {
    Selection selection;
    try {
        selection = m_library.select(what);
    } catch (const DatabaseError& error) {
        selection.failure = std::string("The library can't be read: ") + error.what();
    }
    if (!selection.failure.empty()) {
        return selection.failure;
    }
    const Outcome outcome =
        m_queues.play(alarm.device, selection.items, Where::now, std::nullopt,
                      [&](Clock::time_point latest) { be_loud(alarm, latest); });
    return outcome.is_ok ? wait_until_heard(alarm.device) : outcome.reason;
}

// Before anything is heard. A device without such a volume plays as it is.
void Alarms::be_loud(const Alarm& alarm, Clock::time_point latest) {
    {
        const std::scoped_lock lock(m_house.mutex);
        m_house.sessions.set_sleep(alarm.device, std::nullopt);
        m_house.change();
    }
    m_house.write_sessions();
    if (alarm.volume) {
        JsonPtr arguments = new_object();
        add(arguments.get(), "volume", *alarm.volume);
        m_commands.run(alarm.device, "volume", std::move(arguments), latest);
    }
    JsonPtr arguments = new_object();
    add(arguments.get(), "muted", false);
    m_commands.run(alarm.device, "mute", std::move(arguments), latest);
}

std::string Alarms::wait_until_heard(const std::string& id) {
    std::unique_lock lock(m_house.mutex);
    const Device* device = nullptr;
    m_house.on_change.wait_for(lock, kSoundPatience, [&] {
        device = m_house.find(id);
        return m_house.is_closed || device == nullptr || device->waiting() == nullptr;
    });
    if (device != nullptr && !device->asked) {
        return {};
    }
    return device != nullptr && !device->problem.empty() ? device->problem
                                                         : "nothing is heard of it";
}

}  // namespace nuvio::controller
