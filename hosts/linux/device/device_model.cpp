#include "device/device_model.h"

#include <atomic>
#include <ctime>
#include <mutex>

#include "base/text.h"
#include "common/number.h"
#include "configuration/identity.h"
#include "platform/Environment.h"
#include "platform/Kora.h"

namespace nuvio::host {

namespace {

constinit std::atomic<ServiceReport> service_report{nullptr};

std::optional<int32_t> number_in(const android::AMessage& report, const std::string& key) {
    int32_t value = 0;
    return report.findInt32(key.c_str(), &value) ? std::optional(value) : std::nullopt;
}

std::optional<std::string> text_in(const android::AMessage& report, const char* key) {
    std::string value;
    return report.findString(key, &value) ? std::optional(to_utf8(value)) : std::nullopt;
}

AudioFormat format_in(const android::AMessage& report, const std::string& prefix) {
    return {number_in(report, prefix + "rate"), number_in(report, prefix + "bits"),
            number_in(report, prefix + "channels")};
}

std::mutex sound_note_mutex;  // guards what follows
std::string sound_note;
std::optional<PlayedNote> played_note;

std::optional<PlayedNote> last_played() {
    const std::lock_guard lock(sound_note_mutex);
    return played_note;
}

// The service sees what it is given by the core, and knows nothing of what that did before.
void add_sound_note(ServiceState& service) {
    const std::lock_guard lock(sound_note_mutex);
    if (sound_note.empty() || !service.device) {
        return;
    }
    const std::string why = service.bit_exact_why.value_or("");
    service.bit_exact = false;
    service.bit_exact_why = why.empty() ? sound_note : sound_note + "; " + why;
}

ServiceState ask_service() {
    const ServiceReport ask = service_report;
    const android::sp<android::AMessage> message = ask != nullptr ? ask() : nullptr;
    if (message == nullptr) {
        return {};
    }
    const android::AMessage& report = *message;
    const auto exact = number_in(report, "bit_exact");
    ServiceState state{.version = text_in(report, "service_version"),
                       .sdk_version = text_in(report, "sdk_version"),
                       .alsa_version = text_in(report, "alsa_version"),
                       .sessions = number_in(report, "sessions"),
                       .underruns = number_in(report, "underruns"),
                       .error = text_in(report, "error"),
                       .error_time = text_in(report, "error_time"),
                       .stream = format_in(report, ""),
                       .device = text_in(report, "device"),
                       .path = text_in(report, "path"),
                       .card = format_in(report, "card_"),
                       .card_format = text_in(report, "card_format"),
                       .bit_exact = exact ? std::optional(*exact != 0) : std::nullopt,
                       .bit_exact_why = text_in(report, "bit_exact_why"),
                       .buffer_frames = number_in(report, "buffer_frames"),
                       .period_frames = number_in(report, "period_frames")};
    add_sound_note(state);
    return state;
}

}  // namespace

std::optional<int64_t> ServiceState::error_unix_time() const {
    tm parts{};
    const bool is_time =
        error_time && strptime(error_time->c_str(), "%Y-%m-%dT%H:%M:%SZ", &parts) != nullptr;
    return is_time ? std::optional<int64_t>(timegm(&parts)) : std::nullopt;
}

std::optional<double> ServiceState::buffer_seconds() const {
    const bool is_known = buffer_frames && stream.rate && *stream.rate > 0;
    return is_known ? std::optional(1.0 * *buffer_frames / *stream.rate) : std::nullopt;
}

void set_service_report(ServiceReport report) {
    service_report = report;
}

void set_sound_note(const std::string& changed) {
    const std::lock_guard lock(sound_note_mutex);
    sound_note = to_utf8(changed);
}

void set_played_note(const PlayedNote& played) {
    const std::lock_guard lock(sound_note_mutex);
    played_note = {to_utf8(played.title), to_utf8(played.verified)};
}

DeviceState DeviceModel::state() const {
    return {.name = name(),
            .version = NUVIO_VERSION,
            .uptime = std::chrono::duration_cast<std::chrono::seconds>(Clock::now() - m_started),
            .playing = playing(),
            .volume = volume(),
            .muted = is_muted(),
            .service = ask_service(),
            .played = last_played()};
}

std::string DeviceModel::missing_setting() const {
    for (const char* key : {KFeatureNuvioConnectApp_id, KFeatureNuvioConnectApp_secret}) {
        if (m_settings.get(key).empty()) {
            return key;
        }
    }
    return {};
}

std::string DeviceModel::name() const {
    std::string name;
    m_messages.read(android::KORA_DEVICE_NAME, name);
    return name.empty() ? friendly_name(m_settings) : to_utf8(name);
}

std::optional<int> DeviceModel::volume() const {
    std::string text;
    m_messages.read(android::KORA_VOLUME, text);
    return to_percent(text);
}

bool DeviceModel::is_muted() const {
    std::string text;
    m_messages.read(android::KORA_MUTE, text);
    return to_muted(text).value_or(false);
}

int DeviceModel::current_source() const {
    return m_messages.read_number(android::KORA_CURRENT_SOURCE, 0);
}

}  // namespace nuvio::host
