// The audio quality to announce: from the platform's output settings, and at creation of the sink
// from a probe of the hardware. Any thread; unlocked, nothing is kept here.
#pragma once

#include <alsa/asoundlib.h>

#include <optional>
#include <string>

#include "sdk/nuvio_connect.h"

// The platform's two output items, "default" where one is not set.
struct output_settings {
    std::string device;  // name of the configured output; selects the rule
    std::string rates;   // Hz, comma separated, the highest last
};

enum class unset_items { are_logged, are_silent };
output_settings read_output_settings(unset_items unset);

// The last of the rates, in Hz; 0 where the rule does not ask for it or there is no number.
int parse_maximum_rate(const output_settings& settings);

// None where the settings name no rule.
std::optional<nuv_audio_quality> quality_from_settings(const output_settings& settings,
                                                       int maximum_rate);

// The quality of a PCM that was opened for probing, the settings given precedence. None when it
// cannot be queried or cannot play 44.1 kHz/16 bit; `device` names it in the log.
std::optional<nuv_audio_quality> probe_quality(snd_pcm_t* pcm, const char* device,
                                               const output_settings& settings, int maximum_rate);
