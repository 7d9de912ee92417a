// A module of ALSA's: longer periods where the output is a sound server's. server_periods.conf,
// which the host has ALSA read while --setup has made no configuration, names it below "pcm":
// called when ALSA first looks for a PCM, with all that the machine's files have set, and nothing
// is waited for. Sooner nobody knows: Debian's files ask the server while they are loaded, and a
// server may hang.
//
// Left as they are: a rate converter before the server (the rest of a period is lost at its end),
// cards (USB ones tell their place by periods), and a user's own shortest period.

#include <alsa/asoundlib.h>

#include <cstdlib>
#include <string_view>

#include "common/server_period.h"

namespace {

constexpr char kPeriod[] = "defaults.pcm.minperiodtime";
constexpr long kStockPeriodUs = 5000;  // in ALSA's own alsa.conf
constexpr int kMaxNames = 8;           // of one PCM, each another's

// The node's text; null where it is none.
const char* text_of(snd_config_t* node) {
    const char* text = nullptr;
    return snd_config_get_string(node, &text) < 0 ? nullptr : text;
}

// As it stands in the configuration: a type that has to be worked out is a card's.
std::string_view type_of(snd_config_t* pcms, const char* name) {
    snd_config_t* found = nullptr;
    for (int names = 0; names < kMaxNames && snd_config_search(pcms, name, &found) >= 0; ++names) {
        name = text_of(found);
        if (name == nullptr) {
            const bool has_type = snd_config_search(found, "type", &found) >= 0;
            const char* const type = has_type ? text_of(found) : nullptr;
            return type == nullptr ? "" : type;
        }
    }
    return {};
}

}  // namespace

#pragma GCC visibility push(default)
extern "C" {

SND_DLSYM_BUILD_VERSION(nuvio_server_periods, SND_CONFIG_DLSYM_VERSION_HOOK)

// Called with ALSA's lock on its configuration; changes the one that opens the PCM, which is
// null where a program only lists names.
int nuvio_server_periods(snd_config_t* pcms, snd_config_t* /*arguments*/,
                         snd_config_t** replacement, snd_config_t* /*data*/) {
    *replacement = nullptr;
    const char* const output = std::getenv("NUVIO_ALSA_OUTPUT");
    const std::string_view type = output == nullptr ? std::string_view() : type_of(pcms, output);
    snd_config_t* period = nullptr;
    long now = 0;
    if ((type == "pulse" || type == "pipewire") && snd_config != nullptr &&
        snd_config_search(snd_config, kPeriod, &period) >= 0 &&
        snd_config_get_integer(period, &now) >= 0 && now == kStockPeriodUs) {
        snd_config_set_integer(period, nuvio::kServerPeriodUs);
    }
    return 0;
}
}

#pragma GCC visibility pop
