// The way of a sample through ALSA: which layers a PCM has, what the last of them was set up for,
// and whether a sample comes out as it went in.
//
// ALSA hands out no layer but the first one; it describes all of them, though, as a text
// (snd_pcm_dump), and that is read here. Pure; any thread.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

struct output_format {
    unsigned rate = 0;  // Hz
    unsigned bits = 0;  // that count in a sample
    unsigned channels = 0;
    std::string name;  // ALSA's, "S32_LE"; empty: none
};

struct output_path {
    std::vector<std::string> layers;    // from the service to the card
    std::optional<output_format> last;  // what the card, or whatever stands at the end, takes
    // Every sample reaches a card of the kernel unchanged. None: a layer does what is not known.
    std::optional<bool> bit_exact;
    std::string why;  // where that is not true
};

// Of a stream on its way. Takes any text; what is not in it is not known.
output_path read_output_path(const output_format& stream, std::string_view description);
