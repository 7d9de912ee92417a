#include "controller/web/alarm_api.h"

#include <algorithm>
#include <optional>
#include <utility>

#include "common/number.h"
#include "common/utf8.h"

namespace nuvio::controller {

namespace {

constexpr int64_t kLoudest = 100;
constexpr size_t kMaxWhat = 4096;  // bytes
constexpr size_t kMaxAlarmTitle = 200;
constexpr char kNoSuch[] = "no such alarm";

std::optional<Alarm> alarm_of(House& house, const std::string& id) {
    const std::optional<int64_t> number = to_number<int64_t>(id);
    return number ? house.alarms().find(*number) : std::nullopt;
}

// None: something else than days.
std::optional<unsigned> days_of(const cJSON* names) {
    unsigned days = 0;
    const cJSON* name = nullptr;
    cJSON_ArrayForEach(name, names) {
        const auto* const day =
            std::ranges::find(kDays, cJSON_IsString(name) != 0 ? name->valuestring : "");
        if (day == kDays.end()) {
            return std::nullopt;
        }
        days |= 1U << static_cast<unsigned>(day - kDays.begin());
    }
    return cJSON_IsArray(names) != 0 ? std::optional(days) : std::nullopt;
}

// Why it can't be so, for people; empty: it is.
std::string take_wish(Alarm* alarm, const cJSON* wish) {
    if (member(wish, "time") != nullptr || alarm->id == 0) {
        const std::optional<int> minute = to_minute(text_member(wish, "time").value_or(""));
        if (!minute) {
            return "time is HH:MM, 00:00 to 23:59";
        }
        alarm->time.minute = *minute;
    }
    if (const cJSON* const names = member(wish, "days")) {
        const std::optional<unsigned> days = days_of(names);
        if (!days) {
            return "days are of mon, tue, wed, thu, fri, sat, sun";
        }
        alarm->time.days = *days;
    }
    if (const cJSON* const given = member(wish, "volume")) {
        const std::optional<int64_t> volume = number_of(given);
        if (cJSON_IsNull(given) == 0 && (!volume || *volume < 0 || *volume > kLoudest)) {
            return "volume is 0 to 100";
        }
        alarm->volume = volume;
    }
    if (const cJSON* const given = member(wish, "on")) {
        if (cJSON_IsBool(given) == 0) {
            return "on is true or false";
        }
        alarm->is_on = cJSON_IsTrue(given) != 0;
    }
    return {};
}

}  // namespace

int AlarmApi::get_alarms(Exchange& exchange, const std::string&) {
    JsonPtr object = new_object();
    add(object.get(), "alarms", m_house.alarms().describe());
    return exchange.reply_json(object);
}

int AlarmApi::post_alarm(Exchange& exchange, const std::string& name) {
    const JsonPtr body = exchange.body();
    if (body == nullptr) {
        return exchange.status();
    }
    const Devices::Named device = m_house.devices().named(name);
    if (device.id.empty()) {
        return exchange.fail(404, device.failure);
    }
    if (!text_member(body.get(), "what")) {
        return exchange.fail(400, "what is missing");
    }
    Alarm alarm;
    alarm.device = device.id;
    return set(exchange, std::move(alarm), body.get());
}

int AlarmApi::post_change(Exchange& exchange, const std::string& id) {
    const JsonPtr body = exchange.body();
    if (body == nullptr) {
        return exchange.status();
    }
    std::optional<Alarm> alarm = alarm_of(m_house, id);
    return alarm ? set(exchange, std::move(*alarm), body.get()) : exchange.fail(404, kNoSuch);
}

int AlarmApi::post_delete(Exchange& exchange, const std::string& id) {
    if (exchange.body() == nullptr) {
        return exchange.status();
    }
    const std::optional<Alarm> alarm = alarm_of(m_house, id);
    return alarm && m_house.alarms().remove(alarm->id) ? exchange.reply_json(new_object())
                                                       : exchange.fail(404, kNoSuch);
}

int AlarmApi::set(Exchange& exchange, Alarm alarm, const cJSON* wish) {
    const std::string mistake = take_wish(&alarm, wish);
    if (!mistake.empty()) {
        return exchange.fail(400, mistake);
    }
    if (const std::optional<std::string> what = text_member(wish, "what")) {
        if (what->size() > kMaxWhat) {
            return exchange.fail(400, "what is too long");
        }
        Library::Lasting lasting = m_library.lasting(*what);
        if (!lasting.failure.empty()) {
            return exchange.fail(404, lasting.failure);
        }
        alarm.what = std::move(lasting.what);
        alarm.title = beginning(lasting.title, kMaxAlarmTitle);
    }
    const int64_t id = m_house.alarms().set(std::move(alarm));
    if (id == 0) {
        return exchange.fail(409, "there are too many alarms: 8 a device, 64 in all");
    }
    JsonPtr object = new_object();
    add(object.get(), "id", id);
    return exchange.reply_json(object);
}

}  // namespace nuvio::controller
