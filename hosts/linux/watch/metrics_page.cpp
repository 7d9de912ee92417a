#include "watch/metrics_page.h"

#include <array>
#include <cstdio>
#include <string_view>

namespace nuvio::host {

namespace {

using Value = std::optional<double>;

struct Metric {
    const char* name;
    const char* type;
    const char* help;
    Value (*value)(const DeviceState& of);
};
constexpr std::array<Metric, 13> kMetrics = {{
    {"uptime_seconds", "gauge", "Since the start.",
     [](const DeviceState& of) -> Value { return of.uptime.count(); }},
    {"session_active", "gauge", "1: a session has the device.",
     [](const DeviceState& of) -> Value { return of.playing.has_session ? 1 : 0; }},
    {"sessions_total", "counter", "Sessions taken since the start.",
     [](const DeviceState& of) -> Value { return of.service.sessions; }},
    {"underruns_total", "counter", "Underruns of the output since the start.",
     [](const DeviceState& of) -> Value { return of.service.underruns; }},
    {"last_error_timestamp_seconds", "gauge", "When the last error was logged.",
     [](const DeviceState& of) -> Value { return of.service.error_unix_time(); }},
    {"volume_percent", "gauge", "The volume control.",
     [](const DeviceState& of) -> Value { return of.volume; }},
    {"muted", "gauge", "1: no sound.",
     [](const DeviceState& of) -> Value { return of.muted ? 1 : 0; }},
    {"stream_rate_hertz", "gauge", "Rate of what is played.",
     [](const DeviceState& of) -> Value { return of.service.stream.rate; }},
    {"stream_bits", "gauge", "Bits of its samples.",
     [](const DeviceState& of) -> Value { return of.service.stream.bits; }},
    {"card_rate_hertz", "gauge", "Rate that the card was set up for.",
     [](const DeviceState& of) -> Value { return of.service.card.rate; }},
    {"card_bits", "gauge", "Bits of its samples.",
     [](const DeviceState& of) -> Value { return of.service.card.bits; }},
    {"bit_exact", "gauge", "1: samples reach the card unchanged.",
     [](const DeviceState& of) -> Value { return of.service.bit_exact; }},
    {"buffer_seconds", "gauge", "What the output holds at most.",
     [](const DeviceState& of) -> Value { return of.service.buffer_seconds(); }},
}};

// The two lines of explanation.
std::string head(const std::string& name, const char* type, const char* help) {
    return "# HELP nuvio_connect_" + name + " " + help + "\n# TYPE nuvio_connect_" + name + " " +
           type + "\n";
}

std::string sample(const std::string& name, const std::string& labels, double value) {
    std::array<char, 32> number{};
    std::snprintf(number.data(), number.size(), " %.15g\n", value);
    return "nuvio_connect_" + name + (labels.empty() ? labels : "{" + labels + "}") + number.data();
}

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

}  // namespace

std::string metrics_page(const DeviceState& state) {
    std::string page = head("info", "gauge", "Name and versions.");
    page += sample("info",
                   label("name", state.name) + "," + label("host", state.version) + "," +
                       label("service", state.service.version.value_or("")) + "," +
                       label("sdk", state.service.sdk_version.value_or("")),
                   1);
    page += head("state", "gauge", "1 for the state that it is in.");
    for (const PlayStateWord& word : kPlayStateWords) {
        const bool is_in = &word == &word_of(state.playing.status);
        page += sample("state", label("state", word.key), is_in ? 1 : 0);
    }
    for (const Metric& metric : kMetrics) {
        if (const Value value = metric.value(state)) {
            page += head(metric.name, metric.type, metric.help) + sample(metric.name, "", *value);
        }
    }
    return page;
}

}  // namespace nuvio::host
