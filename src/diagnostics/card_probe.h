// The sound cards there are and what they can do, asked of ALSA as the sink and the volume control
// would. Opens what it looks at, plays nothing. The main thread's.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "diagnostics/holders.h"
#include "sdk/nuvio_connect.h"

struct SoundCard {
    std::string id;  // the kernel's short name, such as "USB"; stays when cards come and go
    std::string description;  // for people
    std::string pcm;          // its first playback device: "hw:USB,0"
    std::string mixer;        // "hw:USB"
};

// Those that can play, in the kernel's order.
std::vector<SoundCard> sound_cards();

struct OutputAbilities {
    // In Hz, ascending, of the usual ones from 44.1 to 192 kHz: those the device has itself, above
    // 48 kHz only with 24 bits or more.
    std::vector<unsigned> rates;
    bool has_24_bit = false;
    bool converts_rates = false;  // not all of the usual ones up to its highest are among them
};

// None, with ALSA's error, where the device cannot be opened or set up. Does not wait for one that
// is in use: -EBUSY.
std::optional<OutputAbilities> probe_output(const std::string& pcm, int& error);

// The mixer device's element with a playback volume and a playback switch: one of the names that
// usually are the output's, else the first. Empty where there is none.
std::string find_volume_element(const std::string& mixer);

// Who has a playback device of the kernel's cards open that is in use. Known for processes of the
// caller's own account, to root for all.
std::vector<Holder> players();

// What to do about an output that could not be opened; names who plays on a card of the kernel.
std::string advice_for_opening(int error);
