#include "local/track/output.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <iterator>
#include <optional>
#include <string_view>

#include "common/environment.h"
#include "common/number.h"
#include "common/text.h"

namespace local_core {

namespace {

using nuvio::reader::Loudness;
using nuvio::reader::OutputFormats;

constexpr uint32_t kUsualRates[] = {44100, 48000, 88200, 96000, 176400, 192000, 352800, 384000};

uint32_t highest_rate(nuv_audio_quality quality) {
    static constexpr uint32_t kHighestRates[] = {48000, 96000, 192000, 384000};
    return kHighestRates[std::min<size_t>(quality, std::size(kHighestRates) - 1)];
}

bool is_deep(const nuv_audio_format& format) {
    return format.sample_format != NUV_AUDIO_SAMPLE_FORMAT_16_BIT;
}

void add(OutputFormats& formats, uint32_t rate_hz, uint32_t highest_hz) {
    if (rate_hz > 0 && rate_hz <= highest_hz && formats.rate_count < OutputFormats::kMaxRates) {
        formats.rates_hz[formats.rate_count++] = rate_hz;
    }
}

// What is no number is left out.
void add_all(OutputFormats& formats, std::string_view rates, uint32_t highest_hz) {
    while (!rates.empty()) {
        const size_t end = std::min(rates.find(','), rates.size());
        add(formats, nuvio::to_number<uint32_t>(nuvio::trim(rates.substr(0, end))).value_or(0),
            highest_hz);
        rates.remove_prefix(std::min(end + 1, rates.size()));
    }
}

}  // namespace

Output output_of(nuv_audio_quality highest) {
    Output output{highest, {}, nuvio::environment_text("NUVIO_VERIFY") == "all"};
    if (nuvio::environment_text("NUVIO_CONVERT") == "0") {
        return output;
    }
    const uint32_t highest_hz = highest_rate(highest);
    output.formats.is_deep = highest != NUV_AUDIO_QUALITY_CD;
    const std::string loudness = nuvio::environment_text("NUVIO_LOUDNESS");
    output.formats.loudness = loudness == "track"   ? Loudness::track
                              : loudness == "album" ? Loudness::album
                                                    : Loudness::own;
    add_all(output.formats, nuvio::environment_text("NUVIO_OUTPUT_RATES"), highest_hz);
    if (output.formats.rate_count == 0) {
        for (const uint32_t rate_hz : kUsualRates) {
            add(output.formats, rate_hz, highest_hz);
        }
    }
    return output;
}

bool is_above(const nuv_audio_format& format, nuv_audio_quality quality) {
    return format.sample_rate > highest_rate(quality) ||
           (quality == NUV_AUDIO_QUALITY_CD && is_deep(format));
}

bool is_among(const nuv_audio_format& format, const OutputFormats& formats) {
    const auto* const end = formats.rates_hz + formats.rate_count;
    return format.channel_count == nuvio::reader::kOutputChannels &&
           (formats.is_deep || !is_deep(format)) &&
           std::find(formats.rates_hz, end, format.sample_rate) != end;
}

bool is_converted(const nuv_audio_format& inside, const nuv_audio_format& heard) {
    return inside.sample_rate != heard.sample_rate || inside.sample_format != heard.sample_format ||
           inside.channel_count > heard.channel_count;
}

std::string format_text(const nuv_audio_format& format) {
    char text[80];
    const int length = std::snprintf(text, sizeof text, "%g kHz/%d bit",
                                     format.sample_rate / 1000.0, is_deep(format) ? 24 : 16);
    std::string whole(text, static_cast<size_t>(length));
    return format.channel_count > 2
               ? whole + ", " + std::to_string(format.channel_count) + " channels"
               : whole;
}

std::string level_text(float gain_db) {
    char text[40] = "";
    if (gain_db != 0) {
        std::snprintf(text, sizeof text, ", %.1f dB %s", std::fabs(static_cast<double>(gain_db)),
                      gain_db < 0 ? "quieter" : "louder");
    }
    return text;
}

}  // namespace local_core
