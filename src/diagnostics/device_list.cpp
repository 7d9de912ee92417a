#include "diagnostics/device_list.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "common/released_by.h"
#include "common/utf8.h"
#include "media/sink/alsa/alsa_utilities.h"
#include "platform/Environment.h"
#include "utility/environment_item.h"

namespace {

using namespace android;

using Text = std::unique_ptr<char, nuvio::ReleasedBy<std::free>>;

Text hint(const void* of, const char* id) {
    return Text(snd_device_name_get_hint(of, id));
}

// A description may have several lines.
void print_indented(std::string_view text) {
    while (!text.empty()) {
        const size_t end = std::min(text.find('\n'), text.size());
        std::printf("      %s\n", nuvio::printable(text.substr(0, end)).c_str());
        text.remove_prefix(std::min(end + 1, text.size()));
    }
}

size_t list_pcms() {
    std::printf("Playback devices (%s):\n", kALSAOutputDeviceName);
    void** hints = nullptr;
    if (snd_device_name_hint(-1, "pcm", &hints) < 0) {
        return 0;
    }
    size_t count = 0;
    for (void** one = hints; *one != nullptr; ++one) {
        const Text name = hint(*one, "NAME");
        const Text direction = hint(*one, "IOID");  // null: both
        if (name == nullptr ||
            (direction != nullptr && std::strcmp(direction.get(), "Output") != 0)) {
            continue;
        }
        std::printf("  %s\n", nuvio::printable(name.get()).c_str());
        if (const Text description = hint(*one, "DESC")) {
            print_indented(description.get());
        }
        ++count;
    }
    snd_device_name_free_hint(hints);
    if (count == 0) {
        std::puts("  none");
    }
    return count;
}

std::vector<std::string> mixer_devices() {
    std::vector<std::string> devices;
    const auto add = [&devices](const std::string& name) {
        if (!name.empty() && std::ranges::find(devices, name) == devices.end()) {
            devices.push_back(name);
        }
    };
    std::string configured;
    GetEnvItemByName(KFeatureNuvioConnectVolume_Device, configured);
    add(configured);
    add(kDefaultVolumeDevice);
    int card = -1;
    while (snd_card_next(&card) == 0 && card >= 0) {
        add("hw:" + std::to_string(card));
    }
    return devices;
}

// What the service can set is marked; the rest is there for the search.
size_t list_elements(const std::string& device) {
    mixer_ptr mixer;
    if (open_simple_mixer(mixer, device.c_str())) {
        return 0;
    }
    std::printf("  %s\n", nuvio::printable(device).c_str());
    size_t count = 0;
    for (snd_mixer_elem_t* element = snd_mixer_first_elem(mixer.get()); element != nullptr;
         element = snd_mixer_elem_next(element)) {
        if (snd_mixer_selem_has_playback_volume(element) != 1) {
            continue;
        }
        const bool has_switch = snd_mixer_selem_has_playback_switch(element) == 1;
        std::printf("      %s%s\n", nuvio::printable(snd_mixer_selem_get_name(element)).c_str(),
                    has_switch ? "" : " (no mute switch, cannot be used)");
        ++count;
    }
    return count;
}

size_t list_mixers() {
    std::printf("Mixer devices (%s) and their elements (%s):\n", KFeatureNuvioConnectVolume_Device,
                KFeatureNuvioConnectVolume_Element);
    size_t count = 0;
    for (const std::string& device : mixer_devices()) {
        count += list_elements(device);
    }
    if (count == 0) {
        std::puts("  none");
    }
    return count;
}

}  // namespace

int list_devices() {
    silence_alsa();
    // First: a platform may tell ALSA what to read when it reads its settings.
    std::string configured;
    GetEnvItemByName(kALSAOutputDeviceName, configured);
    const size_t pcms = list_pcms();
    const size_t elements = list_mixers();
    if (pcms + elements == 0) {
        std::puts("ALSA knows no sound card here.");
    }
    return pcms + elements == 0 ? EXIT_FAILURE : EXIT_SUCCESS;
}
