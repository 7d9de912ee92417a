// What the configuration of both plug-ins holds.
#pragma once

#include <alsa/asoundlib.h>

namespace simcard {

// `dir`, the card's directory, as long as the configuration lives; null, and told on ALSA's error
// channel, when there is none.
inline const char* card_directory(const snd_config_t* configuration) {
    const char* directory = nullptr;
    snd_config_t* node = nullptr;
    if (snd_config_search(const_cast<snd_config_t*>(configuration), "dir", &node) < 0 ||
        snd_config_get_string(node, &directory) < 0) {
        SNDERR("simulated card: the configuration names no dir");
        return nullptr;
    }
    return directory;
}

}  // namespace simcard
