#include "media/sink/alsa/output_path.h"

#include <algorithm>
#include <array>
#include <climits>
#include <utility>

#include "common/number.h"
#include "common/text.h"

namespace {

constexpr std::string_view kSlave = "Slave: ";
constexpr std::string_view kPlug = "Plug PCM: ";
constexpr std::string_view kSetUp = "Its setup is:";
constexpr std::string_view kCard = "Hardware PCM";
constexpr std::string_view kMixing = "Direct Stream Mixing PCM";

// They pass samples on as they are, wider or narrower; what is lost on the way shows in the
// formats.
constexpr std::array<std::string_view, 5> kHarmless = {
    kCard, "Copy conversion PCM", "Linear conversion PCM", "Mmap emulation PCM", "Hooks PCM"};

bool is_one_of(std::string_view layer, const auto& names) {
    return std::ranges::any_of(names,
                               [layer](std::string_view name) { return layer.starts_with(name); });
}

// "  rate         : 44100": a line of what a layer was set up for.
void read_setting(std::string_view line, output_format& format) {
    const size_t colon = line.find(':');
    if (colon == std::string_view::npos) {
        return;
    }
    const std::string_view key = nuvio::trim(line.substr(0, colon));
    const std::string_view value = nuvio::trim(line.substr(colon + 1));
    const auto number = nuvio::to_number<unsigned>(value);
    if (key == "format") {
        format.name = value;
    } else if (key == "rate" && number) {
        format.rate = *number;
    } else if (key == "msbits" && number) {
        format.bits = *number;
    } else if (key == "channels" && number) {
        format.channels = *number;
    }
}

std::string layer_name(std::string_view line) {
    for (const std::string_view prefix : {kSlave, kPlug}) {
        if (line.starts_with(prefix)) {
            line.remove_prefix(prefix.size());
        }
    }
    return std::string(line);
}

std::string change(unsigned from, unsigned to, const char* unit) {
    return std::to_string(from) + " " + unit + " become " + std::to_string(to);
}

// What is lost between stream and card; empty when nothing is.
std::string loss(const output_format& stream, const output_format& card, unsigned narrowest) {
    if (stream.rate != card.rate) {
        return change(stream.rate, card.rate, "Hz");
    }
    if (stream.channels != card.channels) {
        return change(stream.channels, card.channels, "channels");
    }
    return stream.bits > narrowest ? change(stream.bits, narrowest, "bits") : std::string();
}

// `narrowest`: the fewest bits of a sample in any layer.
void judge(output_path& path, const output_format& stream, unsigned narrowest) {
    if (!path.last || path.last->rate == 0) {
        path.why = "ALSA does not tell what it set up";
        return;
    }
    const auto mixing = std::ranges::find_if(
        path.layers, [](const std::string& layer) { return layer.starts_with(kMixing); });
    path.why = loss(stream, *path.last, narrowest);
    if (path.why.empty() && mixing != path.layers.end()) {
        path.why = "mixed with what other programs play";
    }
    if (!path.why.empty()) {
        path.bit_exact = false;
        return;
    }
    const auto unknown = std::ranges::find_if_not(
        path.layers, [](const std::string& layer) { return is_one_of(layer, kHarmless); });
    if (unknown != path.layers.end()) {
        path.why = "not known what this does: " + *unknown;
    } else if (!path.layers.back().starts_with(kCard)) {
        path.why = "it ends at no card of the kernel";
    } else {
        path.bit_exact = true;
    }
}

}  // namespace

output_path read_output_path(const output_format& stream, std::string_view description) {
    output_path path;
    bool in_header = false;  // behind a layer's name, before its settings
    unsigned narrowest = UINT_MAX;
    while (!description.empty()) {
        const size_t end = std::min(description.find('\n'), description.size());
        const std::string_view line = description.substr(0, end);
        description.remove_prefix(std::min(end + 1, description.size()));
        if (line.empty() || line == kSetUp) {
            continue;
        }
        if (line.front() == ' ') {
            if (in_header) {
                path.last.emplace();
                in_header = false;
            }
            if (path.last) {
                read_setting(line, *path.last);
                narrowest = path.last->bits == 0 ? narrowest : std::min(narrowest, path.last->bits);
            }
        } else if (!std::exchange(in_header, true) || line.starts_with(kSlave)) {
            path.layers.push_back(layer_name(line));
        }
    }
    judge(path, stream, narrowest);
    return path;
}
