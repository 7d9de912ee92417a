// What both plug-ins are opened from.
#pragma once

#include <alsa/asoundlib.h>

#include <cerrno>

namespace simcard {

// Opens a Device of the card whose directory the configuration names as `dir`; `how` is what its
// kind is opened with. Without a `dir` it says so on ALSA's error channel and returns -EINVAL.
template <typename Device, typename Handle, typename... How>
int open_from_configuration(Handle** handle, const char* name, snd_config_t* configuration,
                            How... how) {
    const char* directory = nullptr;
    snd_config_t* node = nullptr;
    if (snd_config_search(configuration, "dir", &node) < 0 ||
        snd_config_get_string(node, &directory) < 0) {
        SNDERR("simulated card: the configuration names no dir");
        return -EINVAL;
    }
    return Device::open(handle, name, directory, how...);
}

}  // namespace simcard
