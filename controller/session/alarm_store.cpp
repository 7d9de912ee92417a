#include "controller/session/alarm_store.h"

#include <algorithm>
#include <utility>

#include "common/files/files.h"
#include "common/json/json.h"

namespace nuvio::controller {

namespace {

constexpr size_t kMaxAlarmsFile = size_t{4} << 20U;
constexpr int64_t kLoudest = 100;
constexpr int64_t kTooLate = 600;   // seconds
constexpr int64_t kPutBack = 3600;  // seconds that a clock may be corrected by

std::optional<Alarm> alarm_in(const cJSON* entry) {
    const std::optional<int> minute = to_minute(text_member(entry, "time").value_or(""));
    Alarm alarm{.id = number_member(entry, "id").value_or(0),
                .device = text_member(entry, "device").value_or(""),
                .device_name = text_member(entry, "device_name").value_or(""),
                .time = {minute.value_or(0),
                         static_cast<unsigned>(number_member(entry, "days").value_or(0))},
                .what = text_member(entry, "what").value_or(""),
                .title = text_member(entry, "title").value_or(""),
                .volume = number_member(entry, "volume"),
                .is_on = bool_member(entry, "on").value_or(false),
                .since = number_member(entry, "since").value_or(0),
                .failure = text_member(entry, "failure").value_or("")};
    const bool is_loud = alarm.volume && (*alarm.volume < 0 || *alarm.volume > kLoudest);
    const bool is_whole =
        minute && !is_loud && alarm.id > 0 && !alarm.device.empty() && !alarm.what.empty();
    return is_whole ? std::optional(std::move(alarm)) : std::nullopt;
}

}  // namespace

void note_rung(Alarm* alarm, int64_t due, std::string failure) {
    alarm->since = due;
    alarm->is_on = alarm->is_on && alarm->time.days != 0;
    alarm->failure = std::move(failure);
}

std::optional<int64_t> due_of(Alarm* alarm, int64_t now) {
    if (alarm->since == 0 || alarm->since > now + kPutBack) {
        alarm->since = now;
    }
    const std::optional<int64_t> due = next_due(alarm->time, alarm->since);
    if (!due || *due >= now - kTooLate) {
        return due;
    }
    note_rung(alarm, now - kTooLate - 1,
              minute_text(alarm->time.minute) +
                  " was missed: the controller was not running then, or its clock was wrong");
    return alarm->is_on ? next_due(alarm->time, alarm->since) : std::nullopt;
}

AlarmStore::AlarmStore(std::string path) : m_path(std::move(path)) {
    const JsonPtr document = parse_json(read_file(m_path, kMaxAlarmsFile).text);
    const cJSON* entry = nullptr;
    cJSON_ArrayForEach(entry, document.get()) {
        std::optional<Alarm> alarm = alarm_in(entry);
        if (alarm && find(alarm->id) == nullptr && m_alarms.size() < kMost) {
            m_last_id = std::max(m_last_id, alarm->id);
            m_alarms.push_back(std::move(*alarm));
        }
    }
}

Alarm* AlarmStore::find(int64_t id) {
    const auto found = std::ranges::find(m_alarms, id, &Alarm::id);
    return found != m_alarms.end() ? &*found : nullptr;
}

int64_t AlarmStore::put(Alarm alarm) {
    if (Alarm* const before = find(alarm.id)) {
        *before = std::move(alarm);
        return before->id;
    }
    const auto of_device = std::ranges::count(m_alarms, alarm.device, &Alarm::device);
    if (m_alarms.size() >= kMost || static_cast<size_t>(of_device) >= kMostOfDevice) {
        return 0;
    }
    alarm.id = ++m_last_id;
    m_alarms.push_back(std::move(alarm));
    return m_last_id;
}

bool AlarmStore::remove(int64_t id) {
    return std::erase_if(m_alarms, [id](const Alarm& alarm) { return alarm.id == id; }) > 0;
}

std::string AlarmStore::text() const {
    JsonPtr document = new_array();
    for (const Alarm& alarm : m_alarms) {
        JsonPtr entry = new_object();
        add(entry.get(), "id", alarm.id);
        add(entry.get(), "device", alarm.device);
        add(entry.get(), "device_name", alarm.device_name);
        add(entry.get(), "time", minute_text(alarm.time.minute));
        add(entry.get(), "days", alarm.time.days);
        add(entry.get(), "what", alarm.what);
        add(entry.get(), "title", alarm.title);
        add(entry.get(), "volume", alarm.volume);
        add(entry.get(), "on", alarm.is_on);
        add(entry.get(), "since", alarm.since);
        add(entry.get(), "failure", alarm.failure);
        append(document.get(), std::move(entry));
    }
    return print_json(document.get());
}

}  // namespace nuvio::controller
