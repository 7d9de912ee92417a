#pragma once

#include <alsa/asoundlib.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <limits>
#include <memory>
#include <string>
#include <vector>

// Client of the simulated sound card: makes a card in a directory and, from this or any other
// process, sets its volume, injects faults, reads its counters and its recordings.
//
// A card is a directory:
//   asound.conf        ALSA configuration; pcm and ctl "simcard" and "default" are the card
//   asound-tools.conf  the same for programs built without sanitizers (aplay, amixer)
//   card.state         shared state, mapped by every process that has the card open
//   pcm.event, ctl.event  touched at each change; their watchers wake up
//   recordings/        NNN.raw: the interleaved frames as played, NNN.txt: what they are,
//                      NNN.times: when they were heard, a line "FRAME NANOSECONDS" a Heard
//
// The program under test reaches the card through ALSA alone:
//   auto card = simcard::Card::create(dir);
//   card.use_in_this_process();             // before the process's first ALSA call
//   snd_pcm_open(&pcm, "simcard", SND_PCM_STREAM_PLAYBACK, 0);
//
// What the plug-in layer of alsa-lib imposes, as with other plug-ins:
//   - A change from outside (underrun, suspend, gone, end of the audio) is seen at the handle's
//     next ALSA call that asks the card (avail, delay, writei, pause, poll revents), not by
//     snd_pcm_state alone.
//   - snd_pcm_drop fails only on a handle known to be DISCONNECTED; a fault on Op::drop is counted
//     as fired but the call succeeds.
//   - snd_pcm_resume always returns 0; see Resume for what it then leaves behind.
//   - A fault on Op::pointer fails an odd rest as if it were even: snd_pcm_avail asks twice and
//     only the second answer counts, so that `times` 1 and 2 both fail one snd_pcm_avail.
//   - alsa-lib's mixer caches values: a control is read at load and when it changes.
//
// Thread: every function may be called from any thread and any process; a Card object itself may be
// shared by threads. Failures to create, map or read throw std::runtime_error or std::system_error.
namespace simcard {

// The card's operations. Each has a call counter and may be made to fail. The numbers are shared
// between processes.
enum class Op : unsigned {
    open,       // snd_pcm_open
    hw_params,  // snd_pcm_hw_params, after refinement
    prepare,    // snd_pcm_prepare, also as part of snd_pcm_hw_params and recover
    start,      // explicit, or by the first snd_pcm_writei
    write,      // snd_pcm_writei that reaches the card with room free
    pointer,    // snd_pcm_avail (two each), _avail_update, _hwsync, writei (one, two running)
    delay,      // snd_pcm_delay
    pause,      // snd_pcm_pause, both directions
    resume,     // snd_pcm_resume
    drop,       // snd_pcm_drop, and the stop that ends a drain or a close
    drain,      // snd_pcm_drain that finds something to play
    poll_descriptor_count,  // snd_pcm_poll_descriptors_count
    poll_descriptors,       // snd_pcm_poll_descriptors
    poll_revents,           // snd_pcm_poll_descriptors_revents: one per wake-up of a proper program
    ctl_open,               // snd_ctl_open, snd_mixer_attach
    ctl_list,               // snd_ctl_elem_list, snd_mixer_load
    read_volume,            // reading the volume control
    write_volume,           // writing the volume control
    read_switch,            // reading the switch control
    write_switch,           // writing the switch control
    read_event,             // snd_ctl_read, snd_mixer_handle_events
};
inline constexpr std::size_t kOpCount = static_cast<std::size_t>(Op::read_event) + 1;

// Name of an operation as simcardctl spells it ("hw_params").
const char* op_name(Op op);

// The mixer element, one simple element with two channels.
struct Element {
    bool present = true;
    std::string name = "Master";  // at most 31 bytes
    bool has_volume = true;
    bool has_switch = true;
    bool read_only = false;
    long minimum = 0;
    long maximum = 255;
    long volume = 128;  // raw, both channels, at creation
    bool on = true;     // switch at creation: on is unmuted
};

// What the card can do. Fixed at creation, except speed and record.
struct Settings {
    std::vector<snd_pcm_format_t> formats = {SND_PCM_FORMAT_S16_LE, SND_PCM_FORMAT_S24_LE,
                                             SND_PCM_FORMAT_S32_LE};
    // Discrete rates in Hz, at most 32; empty: every rate from minimum_rate to maximum_rate.
    std::vector<unsigned> rates;
    unsigned minimum_rate = 8000;
    unsigned maximum_rate = 384000;
    unsigned minimum_channels = 1;
    unsigned maximum_channels = 8;
    // Buffer that a program without wishes gets, 8 to 4000 ms, and the periods in it: at least 2,
    // of at least 1 ms.
    unsigned default_buffer_ms = 400;
    unsigned default_periods = 8;
    // One open PCM handle at a time, a second open is -EBUSY.
    bool exclusive = false;
    // No configuration at all fits the card: snd_pcm_hw_params_any is -EINVAL.
    bool impossible = false;
    // The hardware pointer waits for data instead of underrunning: for clocks so fast that the
    // machine can't keep up. Underruns then come only from Card::underrun and faults.
    bool patient = false;
    bool record = true;
    // Audio seconds per real second, kept in billionths. 0 stops the clock: only Card::play moves
    // it.
    double speed = 1.0;
    Element element;
};

// Fails calls of one operation, or makes them late. One fault an operation; a new one replaces it.
struct Fault {
    static constexpr std::uint64_t kForever = std::numeric_limits<std::uint64_t>::max();

    Op op;
    // Positive errno; the ALSA call returns its negative. EPIPE also puts a stream in XRUN and
    // ESTRPIPE in SUSPENDED, as a driver does when it returns them. A drain that fails stops the
    // stream, unless with EINTR or EAGAIN: then it goes on draining. 0: the call is only late.
    int error = 0;
    std::uint64_t after = 0;  // calls that still succeed
    std::uint64_t times = 1;  // calls that then fail
    std::uint32_t ms = 0;     // that each of them takes longer
};

// What snd_pcm_resume, and with it snd_pcm_recover, finds after Card::suspend. It returns 0 in all
// cases; the plug-in layer discards the card's answer.
enum class Resume : unsigned {
    works,        // the stream goes on where it was, nothing lost
    unsupported,  // as after the -ENOSYS of a driver that can't: prepared, the queue lost
    stuck,        // still SUSPENDED; prepare fails with -ESTRPIPE
};

// Totals of the card over all handles and processes since its creation, or since this Card object's
// last reset_counters.
struct Counters {
    std::uint64_t calls[kOpCount] = {};   // indexed by Op
    std::uint64_t faults[kOpCount] = {};  // calls made to fail
    std::uint64_t polls_with_room = 0;    // poll_revents that reported POLLOUT without POLLERR
    std::uint64_t frames_written = 0;
    std::uint64_t frames_played = 0;
    std::uint64_t frames_dropped = 0;  // written, never played: drop, close, underrun by command
    std::uint64_t drops = 0;           // drops that lost frames
    std::uint64_t underruns = 0;
    std::uint64_t closes =
        0;  // PCM handles closed; open ones = calls[open] - faults[open] - closes

    // Calls of one operation.
    std::uint64_t operator[](Op op) const { return calls[static_cast<std::size_t>(op)]; }
};

// The handle that last called into the card, as of that call.
struct Stream {
    snd_pcm_state_t state = SND_PCM_STATE_OPEN;
    snd_pcm_format_t format = SND_PCM_FORMAT_UNKNOWN;
    unsigned rate = 0;
    unsigned channels = 0;
    std::uint64_t buffer_frames = 0;
    std::uint64_t period_frames = 0;
    std::uint64_t written = 0;  // frames, over the whole recording
    std::uint64_t played = 0;   // frames, over the whole recording
};

// One recording: everything one handle played between a hw_params and the next, or its close.
struct Recording {
    unsigned number = 0;
    std::filesystem::path raw_path;
    snd_pcm_format_t format = SND_PCM_FORMAT_UNKNOWN;
    unsigned rate = 0;
    unsigned channels = 0;
    std::uint64_t frames = 0;          // played
    std::uint64_t frames_dropped = 0;  // written but not played
    std::uint64_t drops = 0;
    std::uint64_t underruns = 0;
    // False while the handle is open. Of an open one, what was played up to the last pause, drop,
    // drain or underrun is on disk, and most of the rest.
    bool closed = false;
    std::size_t frame_bytes() const;
};

// At `ns` of CLOCK_MONOTONIC exactly `frame` frames of the recording had been heard, by the card's
// clock, whoever looked when.
struct Heard {
    std::uint64_t frame;
    std::int64_t ns;
};

class Card {
  public:
    // Makes a card in `directory` (created if missing, absolute afterwards). Replaces a card that
    // is there, recordings included; handles open on it stay with the old one.
    static Card create(const std::filesystem::path& directory, const Settings& settings = {});
    // The card that is in `directory`.
    static Card attach(const std::filesystem::path& directory);

    Card(Card&& other) noexcept;
    Card& operator=(Card&& other) noexcept;
    ~Card();

    const std::filesystem::path& directory() const;
    // Value for ALSA_CONFIG_PATH in this build's own programs.
    std::filesystem::path config_path() const;
    // Sets ALSA_CONFIG_PATH of this process. Before its first ALSA call, or after
    // snd_config_update_free_global; not while other threads read the environment.
    void use_in_this_process() const;
    // "ALSA_CONFIG_PATH=..." for programs built elsewhere (aplay, amixer), also in sanitizer
    // builds.
    std::string tool_environment() const;

    // Faults and conditions.
    void inject(const Fault& fault);
    void clear_faults();
    // The next `times` snd_pcm_writei, after `after` full ones, take at most `frames` frames.
    void shorten_writes(std::uint64_t frames, std::uint64_t times = 1, std::uint64_t after = 0);
    // Each running handle goes to XRUN, its queue lost.
    void underrun();
    // Each prepared, running or paused handle goes to SUSPENDED, its queue kept.
    void suspend(Resume resume = Resume::works);
    // Pulls the card out: open handles are -ENODEV and DISCONNECTED for good, their descriptors
    // readable without end; opening is -ENODEV until plug_in.
    void unplug();
    void plug_in();
    bool plugged() const;

    // The clock.
    void set_speed(double speed);
    double speed() const;
    // Plays `frames` more frames at once on every running handle, whatever the speed.
    void play(std::uint64_t frames);

    void set_recording(bool on);

    // The element, as another process sees and sets it. Channel -1 is both. Values outside the
    // range are clamped. Each change gives every subscriber one event; no change gives none.
    long volume(int channel = 0) const;
    void set_volume(long raw, int channel = -1);
    bool switch_on(int channel = 0) const;
    void set_switch(bool on, int channel = -1);
    // Takes the element away (remove event) and puts it back (add event).
    void remove_element();
    void restore_element();
    bool element_present() const;

    Counters counters() const;
    void reset_counters();  // for this Card object alone; faults are not affected
    Stream stream() const;

    // In the order in which they were begun.
    std::vector<Recording> recordings() const;
    // The frames of a recording, interleaved, little endian.
    static std::vector<std::uint8_t> data(const Recording& recording);
    // When its frames were heard. Neither number ever falls. From each line to the next the pointer
    // moved steadily, so the time of any frame between is found by proportion. Of two lines with
    // one frame the first says when the pointer came to a stand there (pause, underrun, drop, wait
    // for data), the second when it went on; two with one time are frames that Card::play moved.
    // There is a line at each such change, and else one every 5 ms of audio, or as often as the
    // card is asked where it is. Another speed counts from when the stream's handle sees it; the
    // frame in which that was stands between two lines of its own. Of an open recording as much is
    // on disk as of its frames, or nearly; a last line that does not end is not complete.
    static std::vector<Heard> times(const Recording& recording);
    // Waits until the newest recording is closed and returns it; throws after the timeout.
    Recording wait_closed(std::chrono::milliseconds timeout = std::chrono::seconds(10)) const;

  private:
    struct Impl;
    explicit Card(std::unique_ptr<Impl> impl);
    std::unique_ptr<Impl> m_impl;
};

}  // namespace simcard
