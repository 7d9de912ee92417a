#include "diagnostics/sound_setup.h"

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <optional>
#include <string_view>

#include "common/server_period.h"
#include "common/utf8.h"
#include "diagnostics/card_probe.h"
#include "diagnostics/self_check.h"
#include "media/sink/alsa/alsa_utilities.h"
#include "platform/Environment.h"
#include "platform/SettingsFile.h"
#include "utility/log_delegate.h"

namespace {

// A shorter one interrupts the machine 200 times a second for nothing: what is queued is some
// seconds anyway, and what is heard is asked of the card, not counted in periods. Any other name of
// ALSA's is as a rule a sound server's.
constexpr unsigned kCardPeriodUs = 100'000;
// In all of the configuration item's buffer, with "default_" before it.
constexpr size_t kMaxNameBytes = 40;
constexpr char kSoftElement[] = "Nuvio";

int fail(const std::string& why) {
    std::fprintf(stderr, "nuvio-connect: %s\n", nuvio::printable(why).c_str());
    return EXIT_FAILURE;
}

// ---- Which card -----------------------------------------------------------------------------

int list_cards(const std::vector<SoundCard>& cards) {
    std::puts(cards.empty() ? "No sound card here." : "Which card? Say --card and its name:");
    for (const SoundCard& card : cards) {
        std::printf("  %-16s  %s\n", card.id.c_str(), nuvio::printable(card.description).c_str());
    }
    std::puts("'--card default' takes ALSA's default: on a desktop the sound server.");
    return EXIT_FAILURE;
}

// "USB", "1", "hw:USB" and "USB,3" are cards of the kernel, where there are such; anything else is
// a name of ALSA's.
SoundCard find_card(const std::vector<SoundCard>& cards, const std::string& name) {
    const std::string_view plain = std::string_view(name).substr(name.starts_with("hw:") ? 3 : 0);
    const std::string_view id = plain.substr(0, plain.find(','));
    for (SoundCard card : cards) {
        const std::string number = std::to_string(snd_card_get_index(card.id.c_str()));
        if (id == card.id || id == number) {
            if (id.size() < plain.size()) {
                card.pcm = card.mixer + std::string(plain.substr(id.size()));
            }
            return card;
        }
    }
    return {{}, "ALSA's " + name, name, name};
}

bool is_kernel_card(const SoundCard& card) {
    return !card.id.empty();
}

bool is_unquotable(unsigned char c) {
    return c < ' ' || c == '"' || c == '\\';
}

// ---- What is written ------------------------------------------------------------------------

// The settings announce by the name: "default" in it means "as the rates say".
std::string output_name(const SoundCard& card) {
    std::string name = (is_kernel_card(card) ? card.id : card.pcm).substr(0, kMaxNameBytes);
    std::ranges::replace_if(
        name, [](unsigned char c) { return std::isalnum(c) == 0; }, '_');
    return "default_" + name;
}

std::string text_of(const std::vector<unsigned>& rates) {
    std::string text;
    for (const unsigned rate : rates) {
        text += (text.empty() ? "" : ",") + std::to_string(rate);
    }
    return text;
}

// A stage that makes one half of a mixer element of its own: the volume, or the switch.
std::string soft_stage(const SoundCard& card, const char* half, const char* more,
                       const std::string& below) {
    return "{ type softvol " + std::string(more) + "control { name \"" + kSoftElement +
           " Playback " + half + "\" card " + card.id + " } slave.pcm " + below + " }";
}

// A rate converter hands on whole periods, and at the end of the last track the rest of one is
// lost: with the shortest periods, which are ALSA's own, that is nothing that could be heard.
std::string text_of_period(const SoundCard& card, const OutputAbilities& abilities) {
    return abilities.converts_rates
               ? std::string()
               : "# The shortest period in microseconds, where the card has such.\n"
                 "defaults.pcm.minperiodtime " +
                     std::to_string(is_kernel_card(card) ? kCardPeriodUs : nuvio::kServerPeriodUs) +
                     "\n\n";
}

std::string text_of_slave(const SoundCard& card, bool soft_volume) {
    std::string slave = "\"" + card.pcm + "\"";
    if (!is_kernel_card(card)) {
        // A plug-in of ALSA's may have no memory to be written to, and plug converts into nothing
        // else.
        slave = "{ type mmap_emul slave.pcm " + slave + " }";
    }
    if (soft_volume) {
        // At full volume, not muted, both pass the samples on as they are.
        slave = soft_stage(card, "Switch", "resolution 2 ", slave);
        slave = soft_stage(card, "Volume", "", slave);
    }
    return slave;
}

std::string alsa_configuration(const SoundCard& card, const OutputAbilities& abilities,
                               bool soft_volume) {
    std::string description = card.description;  // a USB device's maker writes what he likes
    std::ranges::replace_if(description, is_unquotable, ' ');
    std::string text =
        "# Made by 'nuvio-connect --setup', which makes it anew. Only nuvio-connect\n"
        "# reads it, behind ALSA's own configuration.\n\n";
    text.append(text_of_period(card, abilities))
        .append("# Converts what the card does not have.\n");
    text.append("pcm.!").append(output_name(card)).append(" {\n    type plug\n    slave.pcm ");
    text.append(text_of_slave(card, soft_volume)).append("\n    hint { show on description \"");
    return text.append(description).append("\" }\n}\n");
}

struct Volume {
    std::string element;  // empty: there is none to be had
    bool in_software = false;
};

Volume volume_of(const SoundCard& card) {
    const std::string element = find_volume_element(card.mixer);
    // Made by an earlier set-up, it stays on the card, but does nothing without its stages.
    const bool soft = is_kernel_card(card) && (element.empty() || element == kSoftElement);
    return {soft ? kSoftElement : element, soft};
}

SettingsChange change_for(const SoundCard& card, const OutputAbilities& abilities,
                          const Volume& volume) {
    SettingsChange change;
    change.alsaConfiguration = alsa_configuration(card, abilities, volume.in_software);
    change.items = {{kALSAOutputDeviceName, output_name(card)},
                    {kOutputFS, text_of(abilities.rates)}};
    if (!volume.element.empty()) {
        change.items.emplace_back(KFeatureNuvioConnectVolume_Device, card.mixer);
        change.items.emplace_back(KFeatureNuvioConnectVolume_Element, volume.element);
    }
    return change;
}

void tell(const SoundCard& card, const OutputAbilities& abilities, const Volume& volume) {
    std::printf("card    %s: %s\n", card.pcm.c_str(), nuvio::printable(card.description).c_str());
    std::printf("plays   %s Hz with %s bit; the rest is converted\n",
                text_of(abilities.rates).c_str(), abilities.has_24_bit ? "16 and 24" : "16");
    std::printf("volume  %s%s\n",
                volume.element.empty() ? "none: it stays as the device has it"
                                       : nuvio::printable(volume.element).c_str(),
                volume.in_software ? " (in software: this card has none)" : "");
}

}  // namespace

int set_up_sound(const std::string& wanted) {
    silence_alsa();
    log_silence();
    if (ChangeSettings == nullptr) {
        return fail("this device keeps its settings in a way of its own");
    }
    const std::vector<SoundCard> cards = sound_cards();
    if (wanted.empty() && cards.size() != 1) {
        return list_cards(cards);
    }
    const SoundCard card = wanted.empty() ? cards.front() : find_card(cards, wanted);
    if (std::ranges::any_of(card.pcm, is_unquotable)) {
        return fail("'" + wanted + "' cannot be an ALSA output's name");
    }
    int error = 0;
    auto abilities = probe_output(card.pcm, error);
    if (!abilities) {
        return fail(card.pcm + ": " + snd_strerror(error) + ": " + advice_for_opening(error));
    }
    if (abilities->rates.empty()) {
        abilities->rates = {44100};  // what every controller may send
        abilities->converts_rates = true;
    }
    const Volume volume = volume_of(card);
    tell(card, *abilities, volume);
    std::string told;
    if (!ChangeSettings(change_for(card, *abilities, volume), told)) {
        return fail(told);
    }
    std::printf("wrote   %s\n\n", told.c_str());
    std::fflush(stdout);
    snd_config_update_free_global();  // ALSA reads its configuration anew
    return run_self_check();
}
