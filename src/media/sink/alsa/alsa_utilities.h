// Owning handles for ALSA's objects, and one way to say what ALSA refused. Any thread.
#pragma once

#include <alsa/asoundlib.h>

#include <memory>
#include <optional>
#include <string>

#include "common/released_by.h"

using pcm_ptr = std::unique_ptr<snd_pcm_t, nuvio::ReleasedBy<snd_pcm_close>>;
using mixer_ptr = std::unique_ptr<snd_mixer_t, nuvio::ReleasedBy<snd_mixer_close>>;
using hw_params_ptr =
    std::unique_ptr<snd_pcm_hw_params_t, nuvio::ReleasedBy<snd_pcm_hw_params_free>>;
using format_mask_ptr =
    std::unique_ptr<snd_pcm_format_mask_t, nuvio::ReleasedBy<snd_pcm_format_mask_free>>;
using selem_id_ptr =
    std::unique_ptr<snd_mixer_selem_id_t, nuvio::ReleasedBy<snd_mixer_selem_id_free>>;

// Zeroed objects; a failed allocation is fatal.
hw_params_ptr new_hw_params();
format_mask_ptr new_format_mask();
selem_id_ptr new_selem_id();

// Opens a playback PCM in blocking mode: 0, or ALSA's error with `pcm` left alone. Held to a time,
// as the opening of a mixer is, and refused where too many calls stand still (bounded_handle.h).
int open_playback_pcm(pcm_ptr& pcm, const char* device);

// A step that ALSA refused: its error, and what was tried, in the words of the log.
struct alsa_refusal {
    int error;
    std::string what;
};

// What a PCM is set up for.
struct pcm_stream {
    unsigned rate;  // frames a second
    unsigned channels;
    snd_pcm_format_t format;
};

// Sets an open PCM up: interleaved, resampling allowed, all the rest ALSA's defaults.
// `granted_rate` becomes the rate nearest to the wanted one, 0 where it was not come to. None: it
// is set up.
std::optional<alsa_refusal> set_up_pcm(snd_pcm_t* pcm, const pcm_stream& stream,
                                       unsigned& granted_rate);

// Opens the mixer of a device with its simple elements. None: it is open; else `mixer` is left
// alone.
std::optional<alsa_refusal> open_simple_mixer(mixer_ptr& mixer, const char* device);

// The mixer's, or null where there is none of that name.
snd_mixer_elem_t* find_element(snd_mixer_t* mixer, const char* name, unsigned index);
bool has_volume_and_switch(snd_mixer_elem_t* element);

// ALSA's description of the PCM and of all layers below it (output_path.h). Empty when it has none.
std::string describe_pcm(snd_pcm_t* pcm);

// ALSA explains its errors on standard error unless told otherwise. For the whole process.
void silence_alsa();

// Logs the formatted text at ERROR, followed by ALSA's text and number for the error:
// "<text>: No such device (-19)".
[[gnu::format(printf, 2, 3)]] void log_alsa_error(int error, const char* what, ...);

// True when the result is not negative; else false, after logging it as log_alsa_error does.
[[gnu::format(printf, 2, 3)]] bool alsa_ok(int result, const char* what, ...);

// The descriptors to poll for a PCM or a mixer. None: `count` is 0, and the failure was logged.
struct poll_descriptors {
    std::unique_ptr<pollfd[]> entries;
    unsigned count = 0;
};
poll_descriptors get_poll_descriptors(snd_pcm_t* pcm);
poll_descriptors get_poll_descriptors(snd_mixer_t* mixer);
