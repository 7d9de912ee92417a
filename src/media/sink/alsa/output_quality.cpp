#include "media/sink/alsa/output_quality.h"

#include <algorithm>
#include <array>
#include <climits>
#include <utility>

#include "common/number.h"
#include "media/sink/alsa/alsa_utilities.h"
#include "platform/Environment.h"
#include "utility/log_delegate.h"

namespace {

constexpr char kUnset[] = "default";
constexpr int kMinimumRate = 44100;  // Hz
constexpr size_t kMaxRatesLength = 63;

struct quality_threshold {
    int minimum_rate;  // Hz
    nuv_audio_quality quality;
    const char* name;
};

// Highest first.
constexpr std::array kSettingThresholds = {
    quality_threshold{176400, NUV_AUDIO_QUALITY_HI_RES_LEVEL_2, "HI_RES_LEVEL_2"},
    quality_threshold{96000, NUV_AUDIO_QUALITY_HI_RES_LEVEL_1, "HI_RES_LEVEL_1"},
    quality_threshold{kMinimumRate, NUV_AUDIO_QUALITY_CD, "CD"},
};
constexpr std::array kHardwareThresholds = {
    quality_threshold{384000, NUV_AUDIO_QUALITY_HI_RES_LEVEL_3, "HI_RES_LEVEL_3"},
    quality_threshold{192000, NUV_AUDIO_QUALITY_HI_RES_LEVEL_2, "HI_RES_LEVEL_2"},
    quality_threshold{96000, NUV_AUDIO_QUALITY_HI_RES_LEVEL_1, "HI_RES_LEVEL_1"},
};

template <size_t Size>
const quality_threshold* find_threshold(const std::array<quality_threshold, Size>& thresholds,
                                        int rate) {
    const auto found = std::ranges::find_if(
        thresholds, [rate](const quality_threshold& row) { return rate >= row.minimum_rate; });
    return found == thresholds.end() ? nullptr : &*found;
}

bool contains(const std::string& text, const char* part) {
    return text.find(part) != std::string::npos;
}

std::string read_item(const char* key, const char* label, unset_items unset) {
    std::array<char, kEnvItemBufferSize> value{};
    GetEnvItemByName(key, value.data());
    if (value.front() != '\0') {
        return value.data();
    }
    if (unset == unset_items::are_logged) {
        app_log_news("Nuvio %s = Invalid :: Setting %s to %s\n", label, label, kUnset);
    }
    return kUnset;
}

// Commas without a number between them separate nothing.
std::string last_piece(const std::string& list) {
    const size_t last = list.find_last_not_of(',');
    if (last == std::string::npos) {
        return {};
    }
    const size_t comma = list.find_last_of(',', last);
    const size_t first = comma == std::string::npos ? 0 : comma + 1;
    return list.substr(first, last - first + 1);
}

nuv_audio_quality quality_for_rate(int rate) {
    if (rate <= 0) {
        app_log(LOG_LEVEL_INFO,
                "Nuvio: No valid sample rate from outputfs, using HI_RES_LEVEL_2\n");
        return NUV_AUDIO_QUALITY_HI_RES_LEVEL_2;
    }
    const quality_threshold* row = find_threshold(kSettingThresholds, rate);
    if (row == nullptr) {
        app_log(LOG_LEVEL_WARNING, "Nuvio: Sample rate %d too low, defaulting to CD quality\n",
                rate);
        return NUV_AUDIO_QUALITY_CD;
    }
    app_log(LOG_LEVEL_INFO, "Nuvio: Set quality to %s (max_sample_rate: %d)\n", row->name, rate);
    return row->quality;
}

struct hardware_limits {
    unsigned maximum_rate;  // Hz
    bool has_16_bit;
    bool has_24_bit;
};

std::optional<hardware_limits> query_limits(snd_pcm_t* pcm) {
    const hw_params_ptr params = new_hw_params();
    unsigned maximum_rate = 0;
    if (!alsa_ok(snd_pcm_hw_params_any(pcm, params.get()),
                 "Unable to get any playback configurations from ALSA") ||
        !alsa_ok(snd_pcm_hw_params_get_rate_max(params.get(), &maximum_rate, nullptr),
                 "Unable to get maximum sample rate from ALSA")) {
        return std::nullopt;
    }
    const format_mask_ptr mask = new_format_mask();
    snd_pcm_hw_params_get_format_mask(params.get(), mask.get());
    return hardware_limits{maximum_rate,
                           snd_pcm_format_mask_test(mask.get(), SND_PCM_FORMAT_S16_LE) != 0,
                           snd_pcm_format_mask_test(mask.get(), SND_PCM_FORMAT_S24_LE) != 0};
}

nuv_audio_quality quality_of_hardware(const hardware_limits& limits) {
    if (!limits.has_24_bit) {
        return NUV_AUDIO_QUALITY_CD;
    }
    const int rate = static_cast<int>(std::min<unsigned>(limits.maximum_rate, INT_MAX));
    app_log_news("SND_PCM_FORMAT_S24_LE supportted in the HW max_sample_rate %d, %u \n", rate,
                 limits.maximum_rate);
    const quality_threshold* row = find_threshold(kHardwareThresholds, rate);
    return row == nullptr ? NUV_AUDIO_QUALITY_CD : row->quality;
}

}  // namespace

output_settings read_output_settings(unset_items unset) {
    std::string device = read_item(kALSAOutputDeviceName, "alsaoutputdevice", unset);
    std::string rates = read_item(kOutputFS, "outputfs", unset);
    return {std::move(device), std::move(rates)};
}

int parse_maximum_rate(const output_settings& settings) {
    if (!contains(settings.device, "default") || settings.rates.empty() ||
        settings.rates == kUnset) {
        return 0;
    }
    const std::string piece = last_piece(settings.rates.substr(0, kMaxRatesLength));
    const long value = nuvio::leading_number(piece);
    const int rate = static_cast<int>(std::clamp<long>(value, INT_MIN, INT_MAX));
    app_log(LOG_LEVEL_INFO, "Nuvio: Parsed max output sample rate: %d from outputfs: %s\n", rate,
            settings.rates.c_str());
    return rate;
}

std::optional<nuv_audio_quality> quality_from_settings(const output_settings& settings,
                                                       int maximum_rate) {
    if (contains(settings.device, "default")) {
        return quality_for_rate(maximum_rate);
    }
    if (contains(settings.device, "fixed96k")) {
        return NUV_AUDIO_QUALITY_HI_RES_LEVEL_1;
    }
    if (contains(settings.device, "fixed48k")) {
        return NUV_AUDIO_QUALITY_CD;
    }
    app_log_news("Nuvio use default Audio quality \n");
    return std::nullopt;
}

std::optional<nuv_audio_quality> probe_quality(snd_pcm_t* pcm, const char* device,
                                               const output_settings& settings, int maximum_rate) {
    const std::optional<hardware_limits> limits = query_limits(pcm);
    if (!limits) {
        return std::nullopt;
    }
    const nuv_audio_quality hardware = quality_of_hardware(*limits);
    const nuv_audio_quality quality =
        quality_from_settings(settings, maximum_rate).value_or(hardware);
    const bool plays_cd = limits->has_16_bit && limits->maximum_rate >= kMinimumRate;
    if (quality == NUV_AUDIO_QUALITY_CD && !plays_cd) {
        app_log(LOG_LEVEL_FATAL,
                "ALSA output device '%s' does not meet minimum requirements for playback: none of "
                "the required PCM formats is supported",
                device);
        return std::nullopt;
    }
    return quality;
}
