#include "startup/service_report.h"

#include <alsa/asoundlib.h>

#include <array>
#include <climits>
#include <cstdint>
#include <ctime>
#include <string>

#include "media/sink/alsa/output_path.h"
#include "platform/AMessage.h"
#include "platform/ServiceReport.h"
#include "sdk/nuvio_connect.h"
#include "utility/service_record.h"

namespace {

using android::AMessage;
using android::sp;

void set(AMessage& report, const char* key, const std::string& text) {
    report.setString(key, text.data(), text.size());
}

void setCount(AMessage& report, const char* key, uint64_t count) {
    report.setInt32(key, count > INT32_MAX ? INT32_MAX : static_cast<int32_t>(count));
}

std::string utcOf(time_t time) {
    std::array<char, 32> text{};
    tm parts{};
    gmtime_r(&time, &parts);
    return {text.data(), std::strftime(text.data(), text.size(), "%Y-%m-%dT%H:%M:%SZ", &parts)};
}

void addPath(AMessage& report, const output_path& path) {
    std::string layers;
    for (const std::string& layer : path.layers) {
        layers += (layers.empty() ? "" : " > ") + layer;
    }
    set(report, "path", layers);
    if (path.last) {
        setCount(report, "card_rate", path.last->rate);
        setCount(report, "card_bits", path.last->bits);
        setCount(report, "card_channels", path.last->channels);
        set(report, "card_format", path.last->name);
    }
    if (path.bit_exact) {
        report.setInt32("bit_exact", *path.bit_exact ? 1 : 0);
    }
    if (!path.why.empty()) {
        set(report, "bit_exact_why", path.why);
    }
}

void addOutput(AMessage& report, const service_output& output) {
    set(report, "device", output.device);
    setCount(report, "rate", output.rate);
    setCount(report, "bits", output.bits);
    setCount(report, "channels", output.channels);
    setCount(report, "buffer_frames", output.buffer_frames);
    setCount(report, "period_frames", output.period_frames);
    addPath(report,
            read_output_path({output.rate, output.bits, output.channels, {}}, output.set_up));
}

sp<AMessage> report() {
    const service_record record = service_record_read();
    sp<AMessage> told = new AMessage(0, 0);
    set(*told, "service_version", NUVIO_VERSION);
    if (const char* sdk = nuv_connect_get_sdk_version(); sdk != nullptr) {
        set(*told, "sdk_version", sdk);
    }
    set(*told, "alsa_version", snd_asoundlib_version());
    setCount(*told, "sessions", record.sessions);
    setCount(*told, "underruns", record.underruns);
    if (record.error_time != 0) {
        set(*told, "error", record.error);
        set(*told, "error_time", utcOf(record.error_time));
    }
    if (record.output) {
        addOutput(*told, *record.output);
    }
    return told;
}

}  // namespace

void offerServiceReport() {
    if (OfferServiceReport != nullptr) {
        OfferServiceReport(report);
    }
}
