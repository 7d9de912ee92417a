#include "watch/device_status.h"

#include <array>
#include <atomic>
#include <cstdint>
#include <cstdio>
#include <ctime>
#include <memory>
#include <optional>
#include <string_view>

#include "base/text.h"
#include "common/json/json.h"
#include "common/number.h"

namespace nuvio::host {

namespace {

constinit std::atomic<ServiceReport> service_report{nullptr};

constexpr std::array kStates = {"playing", "stopped", "paused"};  // by EPlayState

// What the service tells, by key; nothing where it tells nothing.
class Facts {
  public:
    Facts() {
        if (const ServiceReport ask = service_report) {
            m_report = ask();
        }
    }
    std::optional<int32_t> number(const char* key) const {
        int32_t value = 0;
        return m_report != nullptr && m_report->findInt32(key, &value)
                   ? std::optional<int32_t>(value)
                   : std::nullopt;
    }
    std::optional<std::string> text(const char* key) const {
        std::string value;
        return m_report != nullptr && m_report->findString(key, &value)
                   ? std::optional<std::string>(to_utf8(value))
                   : std::nullopt;
    }
    bool has(const char* key) const { return number(key) || text(key); }

  private:
    android::sp<android::AMessage> m_report;
};

// ---- JSON -----------------------------------------------------------------------------------

// An object under the key, or null in its place where the condition does not hold.
cJSON* add_object_if(bool condition, cJSON* object, const char* key) {
    if (!condition) {
        add(object, key, nullptr);
    }
    return condition ? add_object(object, key) : nullptr;
}

void add_track(cJSON* status, const NowPlayingView& view) {
    if (!view.track) {
        add(status, "track", nullptr);
        return;
    }
    cJSON* const track = add_object(status, "track");
    add(track, "title", view.track->title);
    add(track, "artist", view.track->artist);
    add(track, "album", view.track->album);
    add(track, "length_ms", static_cast<double>(view.track->length_ms));
    add(track, "position_ms", static_cast<double>(view.position_ms));
}

void add_format(cJSON* parent, const char* key, const Facts& facts, const std::string& prefix) {
    cJSON* const format = add_object_if(facts.has((prefix + "rate").c_str()), parent, key);
    if (format != nullptr) {
        for (const char* name : {"rate", "bits", "channels"}) {
            add(format, name, facts.number((prefix + name).c_str()));
        }
    }
}

void add_output(cJSON* status, const Facts& facts) {
    add_format(status, "format", facts, "");
    cJSON* const output = add_object_if(facts.has("device"), status, "output");
    if (output == nullptr) {
        return;
    }
    add(output, "device", facts.text("device"));
    add(output, "path", facts.text("path"));
    add_format(output, "granted", facts, "card_");
    add(output, "granted_format", facts.text("card_format"));
    const auto exact = facts.number("bit_exact");
    add(output, "bit_exact", exact ? std::optional(*exact != 0) : std::nullopt);
    add(output, "why", facts.text("bit_exact_why"));
    add(output, "buffer_frames", facts.number("buffer_frames"));
    add(output, "period_frames", facts.number("period_frames"));
}

void add_error(cJSON* status, const Facts& facts) {
    cJSON* const error = add_object_if(facts.has("error"), status, "last_error");
    if (error != nullptr) {
        add(error, "time", facts.text("error_time"));
        add(error, "text", facts.text("error"));
    }
}

// ---- Metrics --------------------------------------------------------------------------------

class Page {
  public:
    // `type` is gauge or counter. The first of a name brings its two lines of explanation.
    void add(const char* name, const char* type, const char* help, std::optional<double> value) {
        if (value) {
            begin(name, type, help);
            sample(name, "", *value);
        }
    }
    void begin(const char* name, const char* type, const char* help) {
        m_text += std::string("# HELP nuvio_connect_") + name + " " + help +
                  "\n# TYPE nuvio_connect_" + name + " " + type + "\n";
    }
    void sample(const char* name, const std::string& labels, double value) {
        std::array<char, 32> number{};
        std::snprintf(number.data(), number.size(), " %.15g\n", value);
        m_text += std::string("nuvio_connect_") + name +
                  (labels.empty() ? labels : "{" + labels + "}") + number.data();
    }
    const std::string& text() const { return m_text; }

  private:
    std::string m_text;
};

std::string label(const char* name, std::string_view value) {
    std::string text = std::string(name) + "=\"";
    for (const char c : value) {
        if (c == '\\' || c == '"') {
            text += '\\';
        }
        text += c == '\n' ? ' ' : c;
    }
    return text + "\"";
}

std::optional<double> seconds_of(std::optional<int32_t> frames, std::optional<int32_t> rate) {
    return frames && rate && *rate > 0 ? std::optional<double>(1.0 * *frames / *rate)
                                       : std::nullopt;
}

std::optional<double> time_of(const std::optional<std::string>& utc) {
    tm parts{};
    return utc && strptime(utc->c_str(), "%Y-%m-%dT%H:%M:%SZ", &parts) != nullptr
               ? std::optional<double>(timegm(&parts))
               : std::nullopt;
}

void add_output(Page& page, const Facts& facts) {
    page.add("stream_rate_hertz", "gauge", "Rate of what is played.", facts.number("rate"));
    page.add("stream_bits", "gauge", "Bits of its samples.", facts.number("bits"));
    page.add("card_rate_hertz", "gauge", "Rate that the card was set up for.",
             facts.number("card_rate"));
    page.add("card_bits", "gauge", "Bits of its samples.", facts.number("card_bits"));
    page.add("bit_exact", "gauge", "1: samples reach the card unchanged.",
             facts.number("bit_exact"));
    page.add("buffer_seconds", "gauge", "What the output holds at most.",
             seconds_of(facts.number("buffer_frames"), facts.number("rate")));
}

}  // namespace

void set_service_report(ServiceReport report) {
    service_report = report;
}

std::string DeviceStatus::json() const {
    const Facts facts;
    const NowPlayingView view = m_controls.now_playing().view();
    const JsonPtr document = new_object();
    cJSON* const status = document.get();
    add(status, "name", m_controls.device_name());
    add(status, "state", kStates[view.status]);
    add_track(status, view);
    add_output(status, facts);
    add(status, "volume", m_controls.volume());
    add(status, "muted", m_controls.is_muted());
    add(status, "underruns", facts.number("underruns"));
    add_error(status, facts);
    cJSON* const sessions = add_object(status, "sessions");
    add(sessions, "taken", facts.number("sessions"));
    add(sessions, "active", view.actions.control);
    add(status, "uptime_s", static_cast<double>(uptime().count()));
    cJSON* const versions = add_object(status, "versions");
    add(versions, "host", NUVIO_VERSION);
    add(versions, "service", facts.text("service_version"));
    add(versions, "sdk", facts.text("sdk_version"));
    add(versions, "alsa", facts.text("alsa_version"));
    return print_json(status);
}

std::string DeviceStatus::metrics() const {
    const Facts facts;
    const NowPlayingView view = m_controls.now_playing().view();
    Page page;
    page.begin("info", "gauge", "Name and versions.");
    page.sample("info",
                label("name", m_controls.device_name()) + "," + label("host", NUVIO_VERSION) + "," +
                    label("service", facts.text("service_version").value_or("")) + "," +
                    label("sdk", facts.text("sdk_version").value_or("")),
                1);
    page.begin("state", "gauge", "1 for the state that it is in.");
    for (size_t i = 0; i < kStates.size(); ++i) {
        page.sample("state", label("state", kStates[i]),
                    static_cast<size_t>(view.status) == i ? 1 : 0);
    }
    page.add("uptime_seconds", "gauge", "Since the start.", uptime().count());
    page.add("session_active", "gauge", "1: a session has the device.",
             view.actions.control ? 1 : 0);
    page.add("sessions_total", "counter", "Sessions taken since the start.",
             facts.number("sessions"));
    page.add("underruns_total", "counter", "Underruns of the output since the start.",
             facts.number("underruns"));
    page.add("last_error_timestamp_seconds", "gauge", "When the last error was logged.",
             time_of(facts.text("error_time")));
    page.add("volume_percent", "gauge", "The volume control.", m_controls.volume());
    page.add("muted", "gauge", "1: no sound.", m_controls.is_muted() ? 1 : 0);
    add_output(page, facts);
    return page.text();
}

}  // namespace nuvio::host
