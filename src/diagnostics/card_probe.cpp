#include "diagnostics/card_probe.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string_view>
#include <system_error>

#include "common/released_by.h"
#include "media/sink/alsa/alsa_utilities.h"

namespace {

namespace fs = std::filesystem;

using CtlPtr = std::unique_ptr<snd_ctl_t, nuvio::ReleasedBy<snd_ctl_close>>;
using CardInfoPtr = std::unique_ptr<snd_ctl_card_info_t, nuvio::ReleasedBy<snd_ctl_card_info_free>>;
using PcmInfoPtr = std::unique_ptr<snd_pcm_info_t, nuvio::ReleasedBy<snd_pcm_info_free>>;

constexpr unsigned kHighestCdRate = 48000;  // Hz
constexpr std::array kRates = {44100U, 48000U, 88200U, 96000U, 176400U, 192000U};
constexpr std::array kWide = {SND_PCM_FORMAT_S24_LE, SND_PCM_FORMAT_S24_3LE, SND_PCM_FORMAT_S32_LE};

// What the output's own element is usually called.
constexpr std::array<std::string_view, 6> kUsualElements = {"Master",  "PCM",       "Digital",
                                                            "Speaker", "Headphone", "Line Out"};

// ---- Cards ----------------------------------------------------------------------------------

// The number of the card's first device that plays, or -1.
int first_playback_device(snd_ctl_t* ctl) {
    snd_pcm_info_t* made = nullptr;
    if (snd_pcm_info_malloc(&made) < 0) {
        return -1;
    }
    const PcmInfoPtr info(made);
    int device = -1;
    while (snd_ctl_pcm_next_device(ctl, &device) == 0 && device >= 0) {
        snd_pcm_info_set_device(made, static_cast<unsigned>(device));
        snd_pcm_info_set_subdevice(made, 0);
        snd_pcm_info_set_stream(made, SND_PCM_STREAM_PLAYBACK);
        if (snd_ctl_pcm_info(ctl, made) == 0) {
            return device;
        }
    }
    return -1;
}

std::optional<SoundCard> look_at_card(int number) {
    snd_ctl_t* opened = nullptr;
    snd_ctl_card_info_t* made = nullptr;
    if (snd_ctl_open(&opened, ("hw:" + std::to_string(number)).c_str(), 0) < 0) {
        return std::nullopt;
    }
    const CtlPtr ctl(opened);
    const int device = first_playback_device(opened);
    if (device < 0 || snd_ctl_card_info_malloc(&made) < 0) {
        return std::nullopt;
    }
    const CardInfoPtr info(made);
    if (snd_ctl_card_info(opened, made) < 0) {
        return std::nullopt;
    }
    const std::string id = snd_ctl_card_info_get_id(made);
    const std::string mixer = "hw:" + id;
    return SoundCard{id, snd_ctl_card_info_get_name(made), mixer + "," + std::to_string(device),
                     mixer};
}

// ---- Outputs --------------------------------------------------------------------------------

// Whether the device has the rate itself; with `wide`, together with more than 16 bits.
bool has_rate(snd_pcm_t* pcm, unsigned rate, bool wide) {
    const hw_params_ptr owner = new_hw_params();
    snd_pcm_hw_params_t* params = owner.get();
    unsigned channels = 2;
    if (snd_pcm_hw_params_any(pcm, params) < 0 ||
        snd_pcm_hw_params_set_access(pcm, params, SND_PCM_ACCESS_RW_INTERLEAVED) < 0 ||
        snd_pcm_hw_params_set_channels_near(pcm, params, &channels) < 0 ||
        snd_pcm_hw_params_set_rate(pcm, params, rate, 0) < 0) {
        return false;
    }
    return !wide || std::ranges::any_of(kWide, [&](snd_pcm_format_t format) {
        return snd_pcm_hw_params_test_format(pcm, params, format) == 0;
    });
}

// ---- Who has it -----------------------------------------------------------------------------

// Of "/proc/asound/card0/pcm1p/sub0" "/dev/snd/pcmC0D1p"; empty for a stream that records.
std::string device_of(const fs::path& substream) {
    const std::string card = substream.parent_path().parent_path().filename();
    const std::string pcm = substream.parent_path().filename();
    constexpr std::string_view kCard = "card";
    constexpr std::string_view kPcm = "pcm";
    return card.starts_with(kCard) && pcm.starts_with(kPcm) && pcm.ends_with('p')
               ? "/dev/snd/pcmC" + card.substr(kCard.size()) + "D" + pcm.substr(kPcm.size())
               : std::string();
}

// The devices of the kernel's streams that play now.
std::vector<std::string> devices_in_use() {
    std::vector<std::string> devices;
    std::error_code error;
    fs::recursive_directory_iterator entry("/proc/asound", error);
    for (; !error && entry != fs::recursive_directory_iterator(); entry.increment(error)) {
        std::string state;
        if (entry->path().filename() == "status" &&
            std::getline(std::ifstream(entry->path()), state) && state != "closed") {
            devices.push_back(device_of(entry->path().parent_path()));
        }
    }
    return devices;
}

bool has_open(const fs::path& descriptors, const std::vector<std::string>& files) {
    std::error_code error;
    fs::directory_iterator entry(descriptors, error);
    for (; !error && entry != fs::directory_iterator(); entry.increment(error)) {
        std::error_code gone;
        const std::string file = fs::read_symlink(entry->path(), gone);
        if (!file.empty() && std::ranges::find(files, file) != files.end()) {
            return true;
        }
    }
    return false;
}

}  // namespace

std::vector<SoundCard> sound_cards() {
    std::vector<SoundCard> cards;
    int number = -1;
    while (snd_card_next(&number) == 0 && number >= 0) {
        if (auto card = look_at_card(number)) {
            cards.push_back(std::move(*card));
        }
    }
    return cards;
}

std::optional<OutputAbilities> probe_output(const std::string& pcm, int& error) {
    snd_pcm_t* opened = nullptr;
    error = snd_pcm_open(&opened, pcm.c_str(), SND_PCM_STREAM_PLAYBACK, SND_PCM_NONBLOCK);
    if (error < 0) {
        return std::nullopt;
    }
    const pcm_ptr owner(opened);
    const hw_params_ptr any = new_hw_params();
    error = snd_pcm_hw_params_any(opened, any.get());
    if (error < 0) {
        return std::nullopt;
    }
    OutputAbilities abilities;
    for (const unsigned rate : kRates) {
        const bool wide = has_rate(opened, rate, true);
        abilities.has_24_bit |= wide;
        if (wide || (rate <= kHighestCdRate && has_rate(opened, rate, false))) {
            abilities.rates.push_back(rate);
        }
    }
    abilities.converts_rates =
        !abilities.rates.empty() && kRates[abilities.rates.size() - 1] != abilities.rates.back();
    return abilities;
}

std::string find_volume_element(const std::string& mixer) {
    mixer_ptr owner;
    if (open_simple_mixer(owner, mixer.c_str())) {
        return {};
    }
    std::vector<std::string> usable;
    for (snd_mixer_elem_t* element = snd_mixer_first_elem(owner.get()); element != nullptr;
         element = snd_mixer_elem_next(element)) {
        if (snd_mixer_selem_get_index(element) == 0 && has_volume_and_switch(element)) {
            usable.emplace_back(snd_mixer_selem_get_name(element));
        }
    }
    const auto* usual = std::ranges::find_if(kUsualElements, [&](std::string_view name) {
        return std::ranges::find(usable, name) != usable.end();
    });
    if (usual != kUsualElements.end()) {
        return std::string(*usual);
    }
    return usable.empty() ? std::string() : usable.front();
}

// The stream's own owner_pid is the number of the thread that opened it, which may have ended.
std::vector<Holder> players() {
    const std::vector<std::string> devices = devices_in_use();
    return find_holders(
        [&](const fs::path& descriptors) { return has_open(descriptors, devices); });
}

std::string advice_for_opening(int error) {
    switch (-error) {
        case EBUSY: {
            std::string who;
            for (const Holder& player : players()) {
                who.append(who.empty() ? "" : ", ").append(player.text());
            }
            return (who.empty() ? "another program plays on it ('fuser -v /dev/snd/*' says which)"
                                : "in use: " + who + " plays now") +
                   ": end that one, or set a device that mixes";
        }
        case EACCES:
        case EPERM:
            return "run as root or as a member of the group audio";
        default:
            return "set another one; 'nuvio-connect --list-devices' shows those there are, "
                   "'nuvio-connect --setup' as root chooses";
    }
}
