// Command line of the simulated sound card.
#include <alsa/asoundlib.h>

#include <cerrno>
#include <charconv>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <functional>
#include <iterator>
#include <stdexcept>
#include <string>
#include <string_view>
#include <tuple>
#include <utility>
#include <vector>

#include "tools/simcard/simcard.h"

namespace {

using simcard::Card;
using Arguments = std::vector<std::string>;

constexpr const char* kUsageText =
    R"(Usage: simcardctl COMMAND DIR [ARGUMENT...]

Makes and drives a simulated sound card. Programs use the card through ALSA:
  export ALSA_CONFIG_PATH=DIR/asound.conf
  aplay music.wav; amixer sset Master 40%
DIR/recordings then has what was heard (NNN.raw), what that is (NNN.txt) and when it was
(NNN.times: lines of the frames heard so far and the nanoseconds of CLOCK_MONOTONIC).

Commands:
  create DIR [OPTION...]      make the card, replacing one that is there
    --formats LIST            default S16_LE,S24_LE,S32_LE
    --rates LIST              these rates in Hz only; default 8000 to 384000
    --channels MIN-MAX        default 1-8
    --buffer MS               buffer of programs without wishes, default 400
    --periods COUNT           periods in it, default 8
    --speed FACTOR            default 1, kept in billionths; 0 stops the clock
    --patient                 wait for data instead of underrunning
    --no-record               keep no recordings
    --exclusive               one playback handle at a time
    --element NAME            mixer element, default Master
    --range MIN..MAX          its raw volume, default 0..255
    --no-switch, --read-only, --no-element
  show DIR                    state, counters and recordings
  volume DIR [RAW|on|off]     show or set the element
  element DIR remove|restore  take the element away or put it back
  fault DIR OPERATION ERROR [AFTER [TIMES|forever [MS]]]
                              fail calls, e.g. fault DIR write EIO 10 1; MS: what each takes
  short DIR FRAMES [AFTER [TIMES]]
                              short writes
  clear DIR                   no more faults
  underrun DIR                underrun now
  suspend DIR [works|unsupported|stuck]
  gone DIR                    pull the card out
  plug DIR                    plug it in again
  speed DIR FACTOR            change the clock
  play DIR FRAMES             move the clock by hand
  record DIR on|off           for streams opened from now on
  operations                  names of the operations that can fail

  --help, --version
)";

class UsageError : public std::runtime_error {
    using std::runtime_error::runtime_error;
};

struct ErrorName {
    const char* name;
    int value;
};
constexpr ErrorName kErrorNames[] = {
    {"EPIPE", EPIPE},   {"ESTRPIPE", ESTRPIPE}, {"ENODEV", ENODEV}, {"EIO", EIO},
    {"EBUSY", EBUSY},   {"EINTR", EINTR},       {"EAGAIN", EAGAIN}, {"EINVAL", EINVAL},
    {"ENOMEM", ENOMEM}, {"EBADFD", EBADFD},     {"EPERM", EPERM},   {"ENOENT", ENOENT},
    {"EACCES", EACCES}, {"ENOSYS", ENOSYS},
};

// ---- Words and numbers --------------------------------------------------------------------------

template <typename Number>
Number parse(std::string_view text) {
    Number value{};
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (error != std::errc() || end != text.data() + text.size()) {
        throw UsageError("not a number: " + std::string(text));
    }
    return value;
}

std::vector<std::string> split(const std::string& text, const std::string& separator) {
    std::vector<std::string> parts;
    std::size_t begin = 0;
    for (std::size_t end; (end = text.find(separator, begin)) != std::string::npos;
         begin = end + separator.size()) {
        parts.push_back(text.substr(begin, end - begin));
    }
    parts.push_back(text.substr(begin));
    return parts;
}

template <typename Number>
std::pair<Number, Number> parse_range(const std::string& text, const std::string& separator) {
    const std::vector<std::string> ends = split(text, separator);
    if (ends.size() != 2) {
        throw UsageError("not a range: " + text);
    }
    return {parse<Number>(ends[0]), parse<Number>(ends[1])};
}

simcard::Op parse_operation(const std::string& text) {
    for (std::size_t i = 0; i < simcard::kOpCount; ++i) {
        if (text == simcard::op_name(static_cast<simcard::Op>(i))) {
            return static_cast<simcard::Op>(i);
        }
    }
    throw UsageError("no such operation: " + text + " (see simcardctl operations)");
}

int parse_error(const std::string& text) {
    for (const ErrorName& error : kErrorNames) {
        if (text == error.name) {
            return error.value;
        }
    }
    return parse<int>(text);
}

std::uint64_t parse_times(const std::string& text) {
    return text == "forever" ? simcard::Fault::kForever : parse<std::uint64_t>(text);
}

bool parse_switch(const std::string& text) {
    if (text != "on" && text != "off") {
        throw UsageError("on or off, not " + text);
    }
    return text == "on";
}

simcard::Resume parse_resume(const std::string& text) {
    constexpr const char* kNames[] = {"works", "unsupported", "stuck"};
    for (unsigned i = 0; i < std::size(kNames); ++i) {
        if (text == kNames[i]) {
            return static_cast<simcard::Resume>(i);
        }
    }
    throw UsageError("no such way to resume: " + text);
}

// ---- Creation -----------------------------------------------------------------------------------

struct Option {
    const char* name;
    bool takes_value;
    std::function<void(simcard::Settings&, const std::string&)> apply;
};

void set_formats(simcard::Settings& settings, const std::string& list) {
    settings.formats.clear();
    for (const std::string& name : split(list, ",")) {
        const snd_pcm_format_t format = snd_pcm_format_value(name.c_str());
        if (format == SND_PCM_FORMAT_UNKNOWN) {
            throw UsageError("no such format: " + name);
        }
        settings.formats.push_back(format);
    }
}

void set_rates(simcard::Settings& settings, const std::string& list) {
    for (const std::string& rate : split(list, ",")) {
        settings.rates.push_back(parse<unsigned>(rate));
    }
}

const std::vector<Option>& creation_options() {
    using simcard::Settings;
    using Value = const std::string&;
    static const std::vector<Option> options = {
        {"--formats", true, set_formats},
        {"--rates", true, set_rates},
        {"--channels", true,
         [](Settings& s, Value v) {
             std::tie(s.minimum_channels, s.maximum_channels) = parse_range<unsigned>(v, "-");
         }},
        {"--buffer", true, [](Settings& s, Value v) { s.default_buffer_ms = parse<unsigned>(v); }},
        {"--periods", true, [](Settings& s, Value v) { s.default_periods = parse<unsigned>(v); }},
        {"--speed", true, [](Settings& s, Value v) { s.speed = parse<double>(v); }},
        {"--patient", false, [](Settings& s, Value) { s.patient = true; }},
        {"--no-record", false, [](Settings& s, Value) { s.record = false; }},
        {"--exclusive", false, [](Settings& s, Value) { s.exclusive = true; }},
        {"--element", true, [](Settings& s, Value v) { s.element.name = v; }},
        {"--range", true,
         [](Settings& s, Value v) {
             std::tie(s.element.minimum, s.element.maximum) = parse_range<long>(v, "..");
             s.element.volume = s.element.minimum + (s.element.maximum - s.element.minimum) / 2;
         }},
        {"--no-switch", false, [](Settings& s, Value) { s.element.has_switch = false; }},
        {"--read-only", false, [](Settings& s, Value) { s.element.read_only = true; }},
        {"--no-element", false, [](Settings& s, Value) { s.element.present = false; }},
    };
    return options;
}

const Option& find_option(const std::string& name) {
    for (const Option& option : creation_options()) {
        if (name == option.name) {
            return option;
        }
    }
    throw UsageError("unknown option: " + name);
}

void create(const Arguments& arguments) {
    simcard::Settings settings;
    for (std::size_t i = 1; i < arguments.size(); ++i) {
        const Option& option = find_option(arguments[i]);
        if (option.takes_value && ++i == arguments.size()) {
            throw UsageError(std::string(option.name) + " needs a value");
        }
        option.apply(settings, arguments[i]);
    }
    const Card card = Card::create(arguments[0], settings);
    std::printf("export ALSA_CONFIG_PATH=%s\n", card.config_path().c_str());
}

// ---- The other commands -------------------------------------------------------------------------

void show(const Card& card) {
    const simcard::Stream stream = card.stream();
    std::printf("card      %s\nplugged   %s\nspeed     %.15g\n", card.directory().c_str(),
                card.plugged() ? "yes" : "no", card.speed());
    std::printf("element   %s, volume %ld %ld, %s\n", card.element_present() ? "present" : "absent",
                card.volume(0), card.volume(1), card.switch_on() ? "on" : "off");
    std::printf("stream    %s, %s %u Hz %u channels, written %" PRIu64 ", played %" PRIu64 "\n",
                snd_pcm_state_name(stream.state), snd_pcm_format_name(stream.format), stream.rate,
                stream.channels, stream.written, stream.played);
    const simcard::Counters counters = card.counters();
    std::printf("totals    written %" PRIu64 ", played %" PRIu64 ", dropped %" PRIu64
                " frames; %" PRIu64 " drops, %" PRIu64 " underruns\n",
                counters.frames_written, counters.frames_played, counters.frames_dropped,
                counters.drops, counters.underruns);
    for (std::size_t i = 0; i < simcard::kOpCount; ++i) {
        if (counters.calls[i] > 0) {
            std::printf("calls     %-22s %" PRIu64 " (%" PRIu64 " failed on demand)\n",
                        simcard::op_name(static_cast<simcard::Op>(i)), counters.calls[i],
                        counters.faults[i]);
        }
    }
    for (const simcard::Recording& recording : card.recordings()) {
        std::printf("recording %s %s %u Hz %u channels, %" PRIu64 " frames%s\n",
                    recording.raw_path.c_str(), snd_pcm_format_name(recording.format),
                    recording.rate, recording.channels, recording.frames,
                    recording.closed ? "" : ", open");
    }
}

void volume(Card& card, const Arguments& arguments) {
    if (arguments.size() < 2) {
        std::printf("%ld %s\n", card.volume(), card.switch_on() ? "on" : "off");
    } else if (arguments[1] == "on" || arguments[1] == "off") {
        card.set_switch(parse_switch(arguments[1]));
    } else {
        card.set_volume(parse<long>(arguments[1]));
    }
}

void element(Card& card, const Arguments& arguments) {
    if (arguments[1] == "remove") {
        card.remove_element();
    } else if (arguments[1] == "restore") {
        card.restore_element();
    } else {
        throw UsageError("remove or restore, not " + arguments[1]);
    }
}

void fault(Card& card, const Arguments& arguments) {
    simcard::Fault fault = {parse_operation(arguments[1]), parse_error(arguments[2]), 0, 1};
    if (arguments.size() > 3) {
        fault.after = parse<std::uint64_t>(arguments[3]);
    }
    if (arguments.size() > 4) {
        fault.times = parse_times(arguments[4]);
    }
    if (arguments.size() > 5) {
        fault.ms = parse<std::uint32_t>(arguments[5]);
    }
    card.inject(fault);
}

void shorten(Card& card, const Arguments& arguments) {
    card.shorten_writes(parse<std::uint64_t>(arguments[1]),
                        arguments.size() > 3 ? parse_times(arguments[3]) : 1,
                        arguments.size() > 2 ? parse<std::uint64_t>(arguments[2]) : 0);
}

struct Command {
    const char* name;
    std::size_t minimum, maximum;  // arguments, the directory included
    std::function<void(Card&, const Arguments&)> run;
};

const std::vector<Command>& commands() {
    static const std::vector<Command> commands = {
        {"show", 1, 1, [](Card& card, const Arguments&) { show(card); }},
        {"volume", 1, 2, volume},
        {"element", 2, 2, element},
        {"fault", 3, 6, fault},
        {"short", 2, 4, shorten},
        {"clear", 1, 1, [](Card& card, const Arguments&) { card.clear_faults(); }},
        {"underrun", 1, 1, [](Card& card, const Arguments&) { card.underrun(); }},
        {"suspend", 1, 2,
         [](Card& card, const Arguments& a) {
             card.suspend(a.size() > 1 ? parse_resume(a[1]) : simcard::Resume::works);
         }},
        {"gone", 1, 1, [](Card& card, const Arguments&) { card.unplug(); }},
        {"plug", 1, 1, [](Card& card, const Arguments&) { card.plug_in(); }},
        {"speed", 2, 2,
         [](Card& card, const Arguments& a) { card.set_speed(parse<double>(a[1])); }},
        {"play", 2, 2,
         [](Card& card, const Arguments& a) { card.play(parse<std::uint64_t>(a[1])); }},
        {"record", 2, 2,
         [](Card& card, const Arguments& a) { card.set_recording(parse_switch(a[1])); }},
    };
    return commands;
}

void run(const std::string& name, const Arguments& arguments) {
    if (name == "operations") {
        for (std::size_t i = 0; i < simcard::kOpCount; ++i) {
            std::printf("%s\n", simcard::op_name(static_cast<simcard::Op>(i)));
        }
        return;
    }
    if (name == "create" && !arguments.empty()) {
        return create(arguments);
    }
    for (const Command& command : commands()) {
        if (name != command.name) {
            continue;
        }
        if (arguments.size() < command.minimum || arguments.size() > command.maximum) {
            throw UsageError(name + ": wrong number of arguments");
        }
        Card card = Card::attach(arguments[0]);
        return command.run(card, arguments);
    }
    throw UsageError("unknown command '" + name + "'");
}

}  // namespace

int main(int argc, char** argv) {
    const Arguments arguments(argv + 1, argv + argc);
    if (!arguments.empty() && (arguments[0] == "--help" || arguments[0] == "-h")) {
        std::fputs(kUsageText, stdout);
        return EXIT_SUCCESS;
    }
    if (!arguments.empty() && arguments[0] == "--version") {
        std::printf("simcardctl %s\n", SIMCARD_VERSION);
        return EXIT_SUCCESS;
    }
    try {
        if (arguments.empty()) {
            throw UsageError("a command is needed");
        }
        run(arguments[0], Arguments(arguments.begin() + 1, arguments.end()));
        return EXIT_SUCCESS;
    } catch (const UsageError& error) {
        std::fprintf(stderr, "simcardctl: %s; see simcardctl --help\n", error.what());
        return 2;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "simcardctl: %s\n", error.what());
        return EXIT_FAILURE;
    }
}
