// The client: a function a wish over the one mapped state of a card. One file, long as it is.
#include "tools/simcard/simcard.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cmath>
#include <cstdlib>
#include <fstream>
#include <map>
#include <new>
#include <stdexcept>
#include <system_error>
#include <thread>
#include <utility>

#include "common/environment.h"
#include "tools/simcard/shared_state.h"

namespace simcard {

namespace fs = std::filesystem;

namespace {

constexpr const char* kPluginDirVariable = "NUVIO_SIMCARD_PLUGIN_DIR";
constexpr double kFastestSpeed = 1e6;

[[noreturn]] void fail(const std::string& what) {
    throw std::system_error(errno, std::generic_category(), what);
}

// ---- Making a card ------------------------------------------------------------------------------

void check(bool condition, const char* message) {
    if (!condition) {
        throw std::runtime_error(std::string("simulated card: ") + message);
    }
}

void check(const Settings& settings) {
    const Element& element = settings.element;
    check(!settings.formats.empty() && settings.formats.size() <= kMaximumFormats,
          "needs 1 to 8 formats");
    check(settings.rates.size() <= kMaximumRates, "takes at most 32 rates");
    check(settings.minimum_rate > 0 && settings.minimum_rate <= settings.maximum_rate,
          "bad range of rates");
    check(settings.minimum_channels > 0 && settings.minimum_channels <= settings.maximum_channels,
          "bad range of channels");
    check(settings.default_buffer_ms >= 8 && settings.default_buffer_ms <= 4000,
          "default buffer must be 8 to 4000 ms");
    check(settings.default_periods >= 2 && settings.default_periods <= settings.default_buffer_ms,
          "needs 2 periods or more, of 1 ms or more");
    check(!element.name.empty() && element.name.size() < kElementNameSize,
          "element's name must have 1 to 31 bytes");
    check(element.minimum <= element.volume && element.volume <= element.maximum,
          "element's volume is outside its range");
}

std::uint64_t shared_speed(double speed) {
    check(speed >= 0 && speed <= kFastestSpeed, "speed must be 0 to 1000000");
    return static_cast<std::uint64_t>(std::llround(speed * kSpeedUnit));
}

void fill_fixed(FixedState& fixed, const Settings& settings) {
    fixed.format_count = static_cast<std::uint32_t>(settings.formats.size());
    std::copy(settings.formats.begin(), settings.formats.end(), fixed.formats);
    fixed.rate_count = static_cast<std::uint32_t>(settings.rates.size());
    std::copy(settings.rates.begin(), settings.rates.end(), fixed.rates);
    std::sort(fixed.rates, fixed.rates + fixed.rate_count);
    fixed.minimum_rate = settings.minimum_rate;
    fixed.maximum_rate = settings.maximum_rate;
    fixed.minimum_channels = settings.minimum_channels;
    fixed.maximum_channels = settings.maximum_channels;
    fixed.maximum_periods = settings.default_periods;
    fixed.exclusive = settings.exclusive ? 1 : 0;
    fixed.impossible = settings.impossible ? 1 : 0;
    fixed.patient = settings.patient ? 1 : 0;
    settings.element.name.copy(fixed.element_name, kElementNameSize - 1);
    fixed.has_volume = settings.element.has_volume ? 1 : 0;
    fixed.has_switch = settings.element.has_switch ? 1 : 0;
    fixed.read_only = settings.element.read_only ? 1 : 0;
    fixed.minimum_volume = settings.element.minimum;
    fixed.maximum_volume = settings.element.maximum;
}

std::unique_ptr<SharedState> initial_state(const Settings& settings) {
    auto state = std::make_unique<SharedState>();
    state->magic = kStateMagic;
    state->version = kStateVersion;
    fill_fixed(state->fixed, settings);
    state->plugged = 1;
    state->recording = settings.record ? 1 : 0;
    state->speed = shared_speed(settings.speed);
    state->element.present = settings.element.present ? 1 : 0;
    for (unsigned i = 0; i < kElementChannels; ++i) {
        state->element.volume.values[i] = settings.element.volume;
        state->element.on.values[i] = settings.element.on ? 1 : 0;
    }
    return state;
}

// Complete under its name or not there at all.
void write_file(const fs::path& path, const void* data, std::size_t size) {
    fs::path partial = path;
    partial += ".part";
    {
        std::ofstream file(partial, std::ios::binary | std::ios::trunc);
        file.write(static_cast<const char*>(data), static_cast<std::streamsize>(size));
        file.flush();
        if (!file) {
            fail("can't write " + partial.string());
        }
    }
    fs::rename(partial, path);
}

void write_file(const fs::path& path, const std::string& text) {
    write_file(path, text.data(), text.size());
}

// A string of ALSA's configuration language.
std::string quoted(const std::string& text) {
    std::string result = "\"";
    for (const char c : text) {
        if (c == '"' || c == '\\') {
            result += '\\';
        }
        result += c;
    }
    return result + '"';
}

// Nothing of the system's configuration: that names cards that may not be there. With `compat` a
// program without wishes gets the shortest period allowed and the longest buffer, that is as many
// periods as there can be, whatever the rate.
std::string alsa_configuration(const fs::path& directory, const std::string& plugin_dir,
                               const Settings& settings) {
    const auto library = [&](const char* kind) {
        return quoted(plugin_dir + "/libasound_module_" + kind + "_nuviosim.so");
    };
    const std::string device = "{ type nuviosim dir " + quoted(directory.string()) + " }\n";
    const unsigned period_us = settings.default_buffer_ms * 1000 / settings.default_periods;
    return "pcm_type.nuviosim { lib " + library("pcm") + " }\n" + "ctl_type.nuviosim { lib " +
           library("ctl") + " }\n" + "pcm.simcard " + device + "ctl.simcard " + device +
           "pcm.default " + device + "ctl.default " + device +
           "pcm.null { type null }\n"
           "pcm.plug { @args [ SLAVE ] @args.SLAVE { type string default simcard }\n"
           "           type plug slave.pcm $SLAVE }\n"
           "defaults.pcm.compat 1\n"
           "defaults.pcm.minperiodtime " +
           std::to_string(period_us) + "\n";
}

std::string plugin_dir(const char* built) {
    return nuvio::environment_text(kPluginDirVariable, built);
}

// ---- Reading recordings -------------------------------------------------------------------------

std::map<std::string, std::string> read_pairs(const fs::path& path) {
    std::map<std::string, std::string> pairs;
    std::ifstream file(path);
    for (std::string line; std::getline(file, line);) {
        if (const std::size_t equals = line.find('='); equals != std::string::npos) {
            pairs[line.substr(0, equals)] = line.substr(equals + 1);
        }
    }
    return pairs;
}

std::uint64_t number(const std::string& text) {
    std::uint64_t value = 0;
    std::from_chars(text.data(), text.data() + text.size(), value);
    return value;
}

Recording read_recording(const fs::path& description) {
    auto pairs = read_pairs(description);
    check(number(pairs["incomplete"]) == 0, "a recording could not be written completely");
    Recording recording;
    recording.number = static_cast<unsigned>(number(description.stem().string()));
    recording.raw_path = fs::path(description).replace_extension(".raw");
    recording.format = snd_pcm_format_value(pairs["format"].c_str());
    recording.rate = static_cast<unsigned>(number(pairs["rate"]));
    recording.channels = static_cast<unsigned>(number(pairs["channels"]));
    recording.frames = number(pairs["frames"]);
    recording.frames_dropped = number(pairs["frames_dropped"]);
    recording.drops = number(pairs["drops"]);
    recording.underruns = number(pairs["underruns"]);
    recording.closed = number(pairs["closed"]) != 0;
    return recording;
}

}  // namespace

std::size_t Recording::frame_bytes() const {
    return static_cast<std::size_t>(snd_pcm_format_physical_width(format)) / 8 * channels;
}

struct Card::Impl {
    Mapping state;
    fs::path directory;
    Counters base;  // what counters() leaves out
};

Card::Card(std::unique_ptr<Impl> impl) : m_impl(std::move(impl)) {}
Card::Card(Card&& other) noexcept = default;
Card& Card::operator=(Card&& other) noexcept = default;
Card::~Card() = default;

Card Card::create(const fs::path& directory, const Settings& settings) {
    check(settings);
    const fs::path absolute = fs::absolute(directory).lexically_normal();
    fs::create_directories(absolute);
    fs::remove_all(absolute / "recordings");
    fs::create_directory(absolute / "recordings");
    for (const Watchers watchers : {Watchers::streams, Watchers::controls}) {
        write_file(absolute / event_file_name(watchers), "");
    }
    write_file(absolute / "asound.conf",
               alsa_configuration(absolute, plugin_dir(SIMCARD_PLUGIN_DIR), settings));
    write_file(absolute / "asound-tools.conf",
               alsa_configuration(absolute, plugin_dir(SIMCARD_TOOL_PLUGIN_DIR), settings));
    const std::unique_ptr<SharedState> state = initial_state(settings);
    write_file(absolute / "card.state", state.get(), sizeof(SharedState));
    return attach(absolute);
}

Card Card::attach(const fs::path& directory) {
    const fs::path absolute = fs::absolute(directory).lexically_normal();
    std::optional<Mapping> state = Mapping::open(absolute.string());
    if (!state) {
        fail("no simulated card in " + absolute.string());
    }
    return Card(std::make_unique<Impl>(Impl{std::move(*state), absolute, {}}));
}

const fs::path& Card::directory() const {
    return m_impl->directory;
}

fs::path Card::config_path() const {
    return m_impl->directory / "asound.conf";
}

void Card::use_in_this_process() const {
    setenv("ALSA_CONFIG_PATH", config_path().c_str(), 1);
}

std::string Card::tool_environment() const {
    return "ALSA_CONFIG_PATH=" + (m_impl->directory / "asound-tools.conf").string();
}

// ---- Faults and conditions ----------------------------------------------------------------------

void Card::inject(const Fault& fault) {
    check(fault.error > 0 || fault.ms > 0, "a fault has a positive errno, or makes a call late");
    arm_fault(m_impl->state->ops[static_cast<std::size_t>(fault.op)],
              static_cast<std::uint32_t>(fault.error), fault.after, fault.times, fault.ms);
}

void Card::clear_faults() {
    for (OpState& op : m_impl->state->ops) {
        clear_fault(op);
    }
    clear_fault(m_impl->state->short_writes);
}

void Card::shorten_writes(std::uint64_t frames, std::uint64_t times, std::uint64_t after) {
    check(frames > 0 && frames <= std::numeric_limits<std::int32_t>::max(),
          "a short write takes at least one frame");
    arm_fault(m_impl->state->short_writes, static_cast<std::uint32_t>(frames), after, times);
}

void Card::underrun() {
    m_impl->state->underrun_commands.fetch_add(1);
    m_impl->state.touch(Watchers::streams);
}

void Card::suspend(Resume resume) {
    m_impl->state->resume_mode = static_cast<std::uint32_t>(resume);
    m_impl->state->suspend_commands.fetch_add(1);
    m_impl->state.touch(Watchers::streams);
}

void Card::unplug() {
    m_impl->state->unplugs.fetch_add(1);
    m_impl->state->plugged = 0;
    m_impl->state.touch(Watchers::streams);
    m_impl->state.touch(Watchers::controls);
}

void Card::plug_in() {
    m_impl->state->plugged = 1;
}

bool Card::plugged() const {
    return m_impl->state->plugged != 0;
}

// ---- The clock ----------------------------------------------------------------------------------

void Card::set_speed(double speed) {
    m_impl->state->speed = shared_speed(speed);
    m_impl->state.touch(Watchers::streams);
}

double Card::speed() const {
    return static_cast<double>(m_impl->state->speed) / kSpeedUnit;
}

void Card::play(std::uint64_t frames) {
    m_impl->state->manual_frames.fetch_add(frames);
    m_impl->state.touch(Watchers::streams);
}

void Card::set_recording(bool on) {
    m_impl->state->recording = on ? 1 : 0;
}

// ---- The element --------------------------------------------------------------------------------

namespace {

// One value into a channel, or with -1 into all.
void store_channel(const Mapping& card, ControlState& control, int channel, std::int64_t value) {
    std::int64_t values[kElementChannels];
    for (int i = 0; i < static_cast<int>(kElementChannels); ++i) {
        values[i] = channel < 0 || channel == i ? value : control.values[i].load();
    }
    store_control(card, control, values);
}

void store_presence(const Mapping& card, bool present) {
    if (card->element.present.exchange(present ? 1 : 0) == (present ? 1U : 0U)) {
        return;
    }
    card->element.presence_changes.fetch_add(1);
    card.touch(Watchers::controls);
}

}  // namespace

long Card::volume(int channel) const {
    return static_cast<long>(m_impl->state->element.volume.values[std::max(channel, 0)]);
}

void Card::set_volume(long raw, int channel) {
    const FixedState& fixed = m_impl->state->fixed;
    const auto clamped = std::clamp<std::int64_t>(raw, fixed.minimum_volume, fixed.maximum_volume);
    store_channel(m_impl->state, m_impl->state->element.volume, channel, clamped);
}

bool Card::switch_on(int channel) const {
    return m_impl->state->element.on.values[std::max(channel, 0)] != 0;
}

void Card::set_switch(bool on, int channel) {
    store_channel(m_impl->state, m_impl->state->element.on, channel, on ? 1 : 0);
}

void Card::remove_element() {
    store_presence(m_impl->state, false);
}

void Card::restore_element() {
    store_presence(m_impl->state, true);
}

bool Card::element_present() const {
    return m_impl->state->element.present != 0;
}

// ---- Observation --------------------------------------------------------------------------------

namespace {

struct TotalPair {
    std::uint64_t Counters::*counter;
    Shared<std::uint64_t> TotalsState::*shared;
};

constexpr TotalPair kTotals[] = {
    {&Counters::polls_with_room, &TotalsState::polls_with_room},
    {&Counters::frames_written, &TotalsState::frames_written},
    {&Counters::frames_played, &TotalsState::frames_played},
    {&Counters::frames_dropped, &TotalsState::frames_dropped},
    {&Counters::drops, &TotalsState::drops},
    {&Counters::underruns, &TotalsState::underruns},
    {&Counters::closes, &TotalsState::closes},
};

Counters all_counters(const SharedState& state) {
    Counters counters;
    for (std::size_t i = 0; i < kOpCount; ++i) {
        counters.calls[i] = state.ops[i].calls;
        counters.faults[i] = state.ops[i].faults;
    }
    for (const TotalPair& total : kTotals) {
        counters.*total.counter = state.totals.*total.shared;
    }
    return counters;
}

}  // namespace

Counters Card::counters() const {
    Counters counters = all_counters(*m_impl->state);
    for (std::size_t i = 0; i < kOpCount; ++i) {
        counters.calls[i] -= m_impl->base.calls[i];
        counters.faults[i] -= m_impl->base.faults[i];
    }
    for (const TotalPair& total : kTotals) {
        counters.*total.counter -= m_impl->base.*total.counter;
    }
    return counters;
}

void Card::reset_counters() {
    m_impl->base = all_counters(*m_impl->state);
}

Stream Card::stream() const {
    const StreamState& state = m_impl->state->stream;
    Stream stream;
    stream.state = static_cast<snd_pcm_state_t>(state.state.load());
    stream.format = static_cast<snd_pcm_format_t>(state.format.load());
    stream.rate = state.rate;
    stream.channels = state.channels;
    stream.buffer_frames = state.buffer_frames;
    stream.period_frames = state.period_frames;
    stream.written = state.written;
    stream.played = state.played;
    return stream;
}

std::vector<Recording> Card::recordings() const {
    std::vector<Recording> recordings;
    for (const fs::directory_entry& entry : fs::directory_iterator(directory() / "recordings")) {
        if (entry.path().extension() == ".txt") {
            recordings.push_back(read_recording(entry.path()));
        }
    }
    std::sort(recordings.begin(), recordings.end(),
              [](const Recording& a, const Recording& b) { return a.number < b.number; });
    return recordings;
}

std::vector<std::uint8_t> Card::data(const Recording& recording) {
    std::ifstream file(recording.raw_path, std::ios::binary | std::ios::ate);
    if (!file) {
        fail("can't read " + recording.raw_path.string());
    }
    std::vector<std::uint8_t> data(static_cast<std::size_t>(file.tellg()));
    file.seekg(0);
    file.read(reinterpret_cast<char*>(data.data()), static_cast<std::streamsize>(data.size()));
    check(static_cast<bool>(file), "a recording could not be read completely");
    return data;
}

std::vector<Heard> Card::times(const Recording& recording) {
    std::ifstream file(fs::path(recording.raw_path).replace_extension(".times"));
    std::vector<Heard> times;
    Heard heard{};
    while (file >> heard.frame >> heard.ns && file.get() == '\n') {
        times.push_back(heard);
    }
    check(file.eof(), "a recording's times could not be read");
    return times;
}

Recording Card::wait_closed(std::chrono::milliseconds timeout) const {
    constexpr std::chrono::milliseconds kPause(5);
    const auto end = std::chrono::steady_clock::now() + timeout;
    for (;;) {
        const std::vector<Recording> all = recordings();
        if (!all.empty() && all.back().closed) {
            return all.back();
        }
        check(std::chrono::steady_clock::now() < end, "the newest recording is still open");
        std::this_thread::sleep_for(kPause);
    }
}

}  // namespace simcard
