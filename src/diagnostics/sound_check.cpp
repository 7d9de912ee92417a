#include "diagnostics/sound_check.h"

#include <sys/epoll.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "common/unique_fd.h"
#include "diagnostics/card_probe.h"
#include "media/sink/alsa/alsa_utilities.h"
#include "media/sink/alsa/output_quality.h"
#include "platform/Environment.h"
#include "utility/environment_item.h"

namespace {

using namespace android;

constexpr char kOutput[] = "output";
constexpr char kMixer[] = "mixer";
constexpr uint64_t kShortBufferMs = 100;

// ---- Output ---------------------------------------------------------------------------------

std::string text_of(const pcm_stream& stream) {
    return std::to_string(stream.rate) + " Hz, " +
           (stream.format == SND_PCM_FORMAT_S16_LE ? "16" : "24") + " bit" +
           (stream.channels == 1 ? ", mono" : "");
}

// What tracks of the announced quality come as, the best last.
std::vector<pcm_stream> announced_streams() {
    struct Row {
        unsigned rate;
        nuv_audio_quality from;  // announced at this quality and above
    };
    constexpr std::array kAnnounced = {
        Row{44100, NUV_AUDIO_QUALITY_CD},
        Row{48000, NUV_AUDIO_QUALITY_CD},
        Row{88200, NUV_AUDIO_QUALITY_HI_RES_LEVEL_1},
        Row{96000, NUV_AUDIO_QUALITY_HI_RES_LEVEL_1},
        Row{176400, NUV_AUDIO_QUALITY_HI_RES_LEVEL_2},
        Row{192000, NUV_AUDIO_QUALITY_HI_RES_LEVEL_2},
        Row{352800, NUV_AUDIO_QUALITY_HI_RES_LEVEL_3},
        Row{384000, NUV_AUDIO_QUALITY_HI_RES_LEVEL_3},
    };
    const output_settings settings = read_output_settings(unset_items::are_silent);
    const nuv_audio_quality quality = quality_from_settings(settings, parse_maximum_rate(settings))
                                          .value_or(NUV_AUDIO_QUALITY_CD);
    std::vector<pcm_stream> streams;
    for (const Row& row : kAnnounced) {
        if (row.from <= quality) {
            streams.push_back({row.rate, 2, SND_PCM_FORMAT_S16_LE});
        }
        if (row.from <= quality && quality > NUV_AUDIO_QUALITY_CD) {
            streams.push_back({row.rate, 2, SND_PCM_FORMAT_S24_LE});
        }
    }
    streams.insert(streams.begin() + 1, {kAnnounced.front().rate, 1, SND_PCM_FORMAT_S16_LE});
    return streams;
}

// What stands in the way of such a stream; nothing when the PCM is set up for it.
std::optional<std::string> obstacle_to(snd_pcm_t* pcm, const pcm_stream& stream) {
    unsigned granted = 0;
    const auto refusal = set_up_pcm(pcm, stream, granted);
    if (granted != 0 && granted != stream.rate) {
        return "plays at " + std::to_string(granted) + " Hz";
    }
    return refusal ? std::optional<std::string>("refuses") : std::nullopt;
}

// The service sleeps on the descriptors until there is room; some PCMs have none that can be
// waited for.
bool can_be_waited_for(snd_pcm_t* pcm) {
    const int count = snd_pcm_poll_descriptors_count(pcm);
    if (count < 1) {
        return false;
    }
    std::vector<pollfd> descriptors(static_cast<size_t>(count));
    snd_pcm_poll_descriptors(pcm, descriptors.data(), static_cast<unsigned>(count));
    const nuvio::UniqueFd set(epoll_create1(EPOLL_CLOEXEC));
    return std::ranges::all_of(descriptors, [&set](const pollfd& one) {
        epoll_event event{};
        event.events = EPOLLIN;
        return epoll_ctl(set.get(), EPOLL_CTL_ADD, one.fd, &event) == 0 || errno == EEXIST;
    });
}

// What a PCM that is set up for the stream holds.
Finding found_of_buffer(snd_pcm_t* pcm, const pcm_stream& stream, std::string before) {
    snd_pcm_uframes_t buffer = 0;
    snd_pcm_uframes_t period = 0;
    snd_pcm_get_params(pcm, &buffer, &period);
    const auto ms = [&](snd_pcm_uframes_t frames) { return uint64_t{frames} * 1000 / stream.rate; };
    before += "buffer " + std::to_string(ms(buffer)) + " ms, period " + std::to_string(ms(period)) +
              " ms at " + text_of(stream);
    return ms(buffer) < kShortBufferMs
               ? doubtful(kOutput, before +
                                       ": the music may break off whenever the machine is "
                                       "busy for longer; only another card mends that")
               : good(kOutput, before);
}

// ---- Mixer ----------------------------------------------------------------------------------

std::string text_of_state(snd_mixer_elem_t* element) {
    long low = 0;
    long high = 0;
    long volume = 0;
    int on = 0;
    snd_mixer_selem_get_playback_volume_range(element, &low, &high);
    snd_mixer_selem_get_playback_volume(element, SND_MIXER_SCHN_FRONT_LEFT, &volume);
    snd_mixer_selem_get_playback_switch(element, SND_MIXER_SCHN_FRONT_LEFT, &on);
    return "volume " + std::to_string(volume) + " of " + std::to_string(low) + " to " +
           std::to_string(high) + ", switch " + (on != 0 ? "on" : "off");
}

}  // namespace

Finding check_output() {
    const std::string device = env_item(kALSAOutputDeviceName, kDefaultOutputDevice);
    const std::string named = std::string(kALSAOutputDeviceName) + " " + quoted(device);
    snd_pcm_t* opened = nullptr;
    // Never waits for one that is in use.
    const int error =
        snd_pcm_open(&opened, device.c_str(), SND_PCM_STREAM_PLAYBACK, SND_PCM_NONBLOCK);
    const auto found = error == -EBUSY ? players() : std::vector<Holder>();
    if (const auto service = std::ranges::find_if(found, &Holder::is_service);
        service != found.end()) {
        return doubtful(kOutput, named + ": " + service->text() +
                                     " plays on it now, so it is not tried; if that is another "
                                     "device than this one, set another output");
    }
    if (error < 0) {
        return bad(kOutput, named + ": " + snd_strerror(error) + ": " + advice_for_opening(error));
    }
    const pcm_ptr pcm(opened);
    const std::vector<pcm_stream> streams = announced_streams();
    for (const pcm_stream& stream : streams) {
        if (const auto obstacle = obstacle_to(pcm.get(), stream)) {
            return bad(kOutput, named + " " + *obstacle + " what is announced as " +
                                    text_of(stream) +
                                    ": run 'nuvio-connect --setup' as root, which makes an output "
                                    "that plays it right");
        }
    }
    if (!can_be_waited_for(pcm.get())) {
        return bad(kOutput, named + " cannot be waited for: set a device of a sound card");
    }
    return found_of_buffer(
        pcm.get(), streams.back(),
        named + " takes all that is announced, up to " + text_of(streams.back()) + "; ");
}

Finding check_mixer() {
    const std::string device = env_item(KFeatureNuvioConnectVolume_Device, kDefaultVolumeDevice);
    const std::string name = env_item(KFeatureNuvioConnectVolume_Element, kDefaultVolumeElement);
    const std::string choose =
        std::string(": set another ") + KFeatureNuvioConnectVolume_Element +
        "; 'nuvio-connect --list-devices' shows those there are, 'nuvio-connect "
        "--setup' as root chooses";
    mixer_ptr mixer;
    if (const auto refusal = open_simple_mixer(mixer, device.c_str())) {
        return bad(kMixer, std::string(KFeatureNuvioConnectVolume_Device) + " " + quoted(device) +
                               ": " + snd_strerror(refusal->error) +
                               ": set the card's name, such as hw:0");
    }
    snd_mixer_elem_t* element = find_element(mixer.get(), name.c_str(), 0);
    const std::string named = quoted(name) + " of " + quoted(device);
    if (element == nullptr) {
        return bad(kMixer, "there is no element " + named + choose);
    }
    if (!has_volume_and_switch(element)) {
        return bad(kMixer, named + " has not both a volume and a switch" + choose);
    }
    return good(kMixer, named + ": " + text_of_state(element));
}
