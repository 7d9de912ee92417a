// The simulated card's PCM: a playback device of alsa-lib's I/O plug-in kind whose hardware pointer
// follows the clock. One object under one lock, so one file, long as it is.
//
// The poll descriptor is an epoll descriptor over a timer (room for avail_min frames, end of a
// drain) and a watch of the card's stream events. Once readable it stays so until
// snd_pcm_poll_descriptors_revents finds that there is nothing to report; a write alone does not
// clear it, as with other plug-ins.
//
// Threads: alsa-lib calls some callbacks inside its own lock and some (prepare, drain, the poll
// callbacks) outside; Pcm's mutex covers all of them.
#include <alsa/asoundlib.h>
#include <alsa/pcm_external.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/epoll.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <iterator>
#include <memory>
#include <mutex>
#include <optional>
#include <span>
#include <string>
#include <utility>

#include "common/unique_fd.h"
#include "tools/simcard/plugin_configuration.h"
#include "tools/simcard/recorder.h"
#include "tools/simcard/shared_state.h"
#include "tools/simcard/stream_clock.h"

namespace simcard {

namespace {

constexpr std::int64_t kNsPerSecond = 1'000'000'000;
// Bytes. The smallest buffer has more frames than the largest errno, see fail_pointer.
constexpr unsigned kMinimumPeriodBytes = 64;
constexpr unsigned kMinimumBufferBytes = 4608;
constexpr unsigned kMaximumBufferBytes = 64 * 1024 * 1024;
// snd_pcm_ioplug_t::nonblock until the program calls snd_pcm_nonblock, which stores 0, 1 or 2.
constexpr int kNonblockUntouched = -1;
constexpr std::int64_t kDisarmed = 0;
constexpr std::int64_t kAtOnce = 1;

std::int64_t now_ns() {
    timespec now = {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<std::int64_t>(now.tv_sec) * kNsPerSecond + now.tv_nsec;
}

// As whatever plays has to: memory that nobody reads is not mapped where it was not written.
void look_at_each_page(std::span<const unsigned char> frames) {
    constexpr std::size_t kPageBytes = 4096;
    [[maybe_unused]] volatile unsigned char seen = 0;
    for (std::size_t at = 0; at < frames.size(); at += kPageBytes) {
        seen = frames[at];
    }
}

// One open PCM handle. Made by open(), deleted by alsa-lib's close callback.
class Pcm {
  public:
    static int open(snd_pcm_t** pcm, const char* name, const std::string& directory,
                    snd_pcm_stream_t stream, int mode);
    explicit Pcm(Mapping card) : m_card(std::move(card)) {}
    ~Pcm();

    // The callbacks, each 0 or a negative errno unless alsa-lib wants something else.
    int hw_params();
    int sw_params(snd_pcm_sw_params_t* params);
    int prepare();
    int start();
    int stop();
    int pause(bool enable);
    int resume();
    int drain();
    int delay(snd_pcm_sframes_t* frames);
    snd_pcm_sframes_t pointer();
    snd_pcm_sframes_t transfer(const snd_pcm_channel_area_t* areas, snd_pcm_uframes_t offset,
                               snd_pcm_uframes_t size);
    int poll_descriptor_count();
    int poll_descriptors(pollfd* descriptors, unsigned space);
    int poll_revents(unsigned short* revents);

  private:
    int make_descriptors(bool nonblocking);
    int restrict_parameters();

    // Entry and exit of callbacks.
    int count_call(Op op);
    int enter(Op op);
    int enter_sound(Op op);
    int state_error() const;
    int leave(snd_pcm_state_t state, int result = 0);
    void publish(snd_pcm_state_t state);

    // What happened since the last callback.
    void follow_card();
    void follow_clock();
    void follow_commands();

    void play_until(std::int64_t now);
    void lose_queue();
    void stop_clock();
    void reset_clock();
    bool is_awake() const;
    void fall_into_underrun();
    void fall_asleep();
    void wake_up();
    void prepare_after_failed_resume();
    void flush_recording();
    void end_recording();

    snd_pcm_sframes_t fail_pointer(int error);
    void repair_pointers();

    void obey_nonblock_request();
    bool nonblocking() const { return (fcntl(m_epoll.get(), F_GETFL) & O_NONBLOCK) != 0; }
    int give_up_drain(int error);
    int wait_for_end(std::unique_lock<std::mutex>& lock);
    void wait_until(std::int64_t deadline);

    std::int64_t next_wake(snd_pcm_state_t state) const;
    void arm(std::int64_t deadline);
    bool readable() const { return m_armed_for != kDisarmed && now_ns() >= m_armed_for; }
    bool has_room() const { return m_io.buffer_size - queued() >= m_avail_min; }
    std::uint64_t queued() const { return m_written - m_played; }
    bool dead() const { return m_card->plugged == 0 || m_card->unplugs != m_unplugs_seen; }

    snd_pcm_ioplug_t m_io = {};
    std::mutex m_mutex;
    Mapping m_card;
    nuvio::UniqueFd m_epoll, m_timer, m_watch;
    std::int64_t m_armed_for = kDisarmed;  // monotonic ns; the timer's expiry

    StreamClock m_clock;
    std::uint64_t m_written = 0, m_played = 0;  // frames since prepare
    std::unique_ptr<Recorder> m_recorder;
    Recorder::Totals m_totals;
    std::uint64_t m_total_written = 0;  // frames of this recording

    snd_pcm_uframes_t m_boundary = 0, m_avail_min = 1, m_stop_threshold = 0;
    snd_pcm_state_t m_state_before_sleep = SND_PCM_STATE_OPEN;

    // Sequence numbers of the card as last followed.
    std::uint64_t m_unplugs_seen = 0, m_underruns_seen = 0, m_suspends_seen = 0, m_manual_seen = 0;
    std::uint64_t m_speed_seen = 0;

    int m_pending_pointer_error = 0;  // negative errno
    bool m_pointers_bent = false;
    snd_pcm_uframes_t m_saved_appl = 0, m_saved_hw = 0;
    snd_pcm_uframes_t m_last_pointer = 0;  // what alsa-lib last got
    bool m_write_cut = false;              // the rest of the current snd_pcm_writei is refused
};

// ---- Callback trampolines -----------------------------------------------------------------------

struct Callbacks {
    static Pcm& self(snd_pcm_ioplug_t* io) { return *static_cast<Pcm*>(io->private_data); }

    static int start(snd_pcm_ioplug_t* io) { return self(io).start(); }
    static int stop(snd_pcm_ioplug_t* io) { return self(io).stop(); }
    static snd_pcm_sframes_t pointer(snd_pcm_ioplug_t* io) { return self(io).pointer(); }
    static snd_pcm_sframes_t transfer(snd_pcm_ioplug_t* io, const snd_pcm_channel_area_t* areas,
                                      snd_pcm_uframes_t offset, snd_pcm_uframes_t size) {
        return self(io).transfer(areas, offset, size);
    }
    static int close(snd_pcm_ioplug_t* io) {
        const std::unique_ptr<Pcm> owned(&self(io));
        return 0;
    }
    static int hw_params(snd_pcm_ioplug_t* io, snd_pcm_hw_params_t*) {
        return self(io).hw_params();
    }
    static int sw_params(snd_pcm_ioplug_t* io, snd_pcm_sw_params_t* params) {
        return self(io).sw_params(params);
    }
    static int prepare(snd_pcm_ioplug_t* io) { return self(io).prepare(); }
    static int drain(snd_pcm_ioplug_t* io) { return self(io).drain(); }
    static int pause(snd_pcm_ioplug_t* io, int enable) { return self(io).pause(enable != 0); }
    static int resume(snd_pcm_ioplug_t* io) { return self(io).resume(); }
    static int poll_descriptors_count(snd_pcm_ioplug_t* io) {
        return self(io).poll_descriptor_count();
    }
    static int poll_descriptors(snd_pcm_ioplug_t* io, pollfd* descriptors, unsigned space) {
        return self(io).poll_descriptors(descriptors, space);
    }
    static int poll_revents(snd_pcm_ioplug_t* io, pollfd*, unsigned, unsigned short* revents) {
        return self(io).poll_revents(revents);
    }
    static int delay(snd_pcm_ioplug_t* io, snd_pcm_sframes_t* frames) {
        return self(io).delay(frames);
    }

    static const snd_pcm_ioplug_callback_t* table() {
        static const snd_pcm_ioplug_callback_t callbacks = [] {
            snd_pcm_ioplug_callback_t c = {};
            c.start = start;
            c.stop = stop;
            c.pointer = pointer;
            c.transfer = transfer;
            c.close = close;
            c.hw_params = hw_params;
            c.sw_params = sw_params;
            c.prepare = prepare;
            c.drain = drain;
            c.pause = pause;
            c.resume = resume;
            c.poll_descriptors_count = poll_descriptors_count;
            c.poll_descriptors = poll_descriptors;
            c.poll_revents = poll_revents;
            c.delay = delay;
            return c;
        }();
        return &callbacks;
    }
};

// ---- Opening and closing ------------------------------------------------------------------------

int Pcm::open(snd_pcm_t** pcm, const char* name, const std::string& directory,
              snd_pcm_stream_t stream, int mode) {
    if (stream != SND_PCM_STREAM_PLAYBACK) {
        return -ENODEV;
    }
    std::optional<Mapping> card = Mapping::open(directory);
    if (!card) {
        return -errno;
    }
    if (const int error = begin_call(**card, Op::open); error < 0) {
        return error;
    }
    if ((*card)->plugged == 0) {
        return -ENODEV;
    }
    if ((*card)->fixed.exclusive != 0 && !card->lock_exclusively()) {
        return -EBUSY;
    }

    auto self = std::make_unique<Pcm>(std::move(*card));
    self->m_unplugs_seen = self->m_card->unplugs;
    self->m_underruns_seen = self->m_card->underrun_commands;
    self->m_suspends_seen = self->m_card->suspend_commands;
    if (const int error = self->make_descriptors((mode & SND_PCM_NONBLOCK) != 0); error < 0) {
        return error;
    }

    self->m_io.version = SND_PCM_IOPLUG_VERSION;
    self->m_io.name = "Simulated sound card";
    self->m_io.flags = SND_PCM_IOPLUG_FLAG_MONOTONIC | SND_PCM_IOPLUG_FLAG_BOUNDARY_WA;
    self->m_io.callback = Callbacks::table();
    self->m_io.private_data = self.get();
    self->m_io.poll_fd = self->m_epoll.get();
    self->m_io.poll_events = POLLIN;
    if (const int error = snd_pcm_ioplug_create(&self->m_io, name, stream, mode); error < 0) {
        return error;
    }
    self->m_io.nonblock = kNonblockUntouched;

    Pcm* const opened = self.release();  // from here on alsa-lib's close callback deletes it
    if (const int error = opened->restrict_parameters(); error < 0) {
        snd_pcm_ioplug_delete(&opened->m_io);
        return error;
    }
    *pcm = opened->m_io.pcm;
    return 0;
}

int Pcm::make_descriptors(bool nonblocking) {
    m_timer = nuvio::UniqueFd(timerfd_create(CLOCK_MONOTONIC, TFD_NONBLOCK | TFD_CLOEXEC));
    m_watch = watch(m_card.directory(), Watchers::streams);
    m_epoll = nuvio::UniqueFd(epoll_create1(EPOLL_CLOEXEC));
    if (!m_timer || !m_watch || !m_epoll) {
        return -errno;
    }
    for (const int fd : {m_timer.get(), m_watch.get()}) {
        epoll_event event = {};
        event.events = EPOLLIN;
        if (epoll_ctl(m_epoll.get(), EPOLL_CTL_ADD, fd, &event) != 0) {
            return -errno;
        }
    }
    if (nonblocking && fcntl(m_epoll.get(), F_SETFL, O_NONBLOCK) != 0) {
        return -errno;
    }
    return 0;
}

int Pcm::restrict_parameters() {
    const FixedState& fixed = m_card->fixed;
    // ALSA's plug converts for a card only where it can write into its memory.
    const unsigned access[] = {SND_PCM_ACCESS_RW_INTERLEAVED, SND_PCM_ACCESS_MMAP_INTERLEAVED};
    const unsigned smallest_period =
        fixed.impossible != 0 ? kMaximumBufferBytes : kMinimumPeriodBytes;
    const int results[] = {
        snd_pcm_ioplug_set_param_list(&m_io, SND_PCM_IOPLUG_HW_ACCESS, std::size(access), access),
        snd_pcm_ioplug_set_param_list(&m_io, SND_PCM_IOPLUG_HW_FORMAT, fixed.format_count,
                                      fixed.formats),
        fixed.rate_count > 0
            ? snd_pcm_ioplug_set_param_list(&m_io, SND_PCM_IOPLUG_HW_RATE, fixed.rate_count,
                                            fixed.rates)
            : snd_pcm_ioplug_set_param_minmax(&m_io, SND_PCM_IOPLUG_HW_RATE, fixed.minimum_rate,
                                              fixed.maximum_rate),
        snd_pcm_ioplug_set_param_minmax(&m_io, SND_PCM_IOPLUG_HW_CHANNELS, fixed.minimum_channels,
                                        fixed.maximum_channels),
        snd_pcm_ioplug_set_param_minmax(&m_io, SND_PCM_IOPLUG_HW_PERIOD_BYTES, smallest_period,
                                        kMaximumBufferBytes),
        snd_pcm_ioplug_set_param_minmax(&m_io, SND_PCM_IOPLUG_HW_BUFFER_BYTES, kMinimumBufferBytes,
                                        kMaximumBufferBytes),
        snd_pcm_ioplug_set_param_minmax(&m_io, SND_PCM_IOPLUG_HW_PERIODS, 2, fixed.maximum_periods),
    };
    return std::min(0, *std::min_element(std::begin(results), std::end(results)));
}

Pcm::~Pcm() {
    if (m_io.pcm == nullptr) {
        return;  // never opened
    }
    follow_clock();
    lose_queue();
    end_recording();
    m_card->totals.closes.fetch_add(1);
}

// ---- Entry and exit -----------------------------------------------------------------------------

// Counts the call, brings the handle up to date and returns the error injected, if any.
int Pcm::count_call(Op op) {
    repair_pointers();
    obey_nonblock_request();
    follow_card();
    const int fault = begin_call(*m_card, op);
    if (fault == -EPIPE) {
        fall_into_underrun();
    } else if (fault == -ESTRPIPE) {
        fall_asleep();
    }
    return fault;
}

// The same for calls that need the card to be there.
int Pcm::enter(Op op) {
    const int fault = count_call(op);
    return m_io.state == SND_PCM_STATE_DISCONNECTED ? -ENODEV : fault;
}

// The same for calls that need a stream which neither ran dry nor sleeps.
int Pcm::enter_sound(Op op) {
    const int error = enter(op);
    return error == 0 ? state_error() : error;
}

int Pcm::state_error() const {
    switch (m_io.state) {
        case SND_PCM_STATE_XRUN:
            return -EPIPE;
        case SND_PCM_STATE_SUSPENDED:
            return -ESTRPIPE;
        case SND_PCM_STATE_DISCONNECTED:
            return -ENODEV;
        default:
            return 0;
    }
}

// Ends a callback after which the stream is in `state` (some states alsa-lib sets only when the
// callback has returned). A wake-up that is due stays due.
int Pcm::leave(snd_pcm_state_t state, int result) {
    if (!readable()) {
        arm(next_wake(state));
    }
    publish(state);
    return result;
}

void Pcm::publish(snd_pcm_state_t state) {
    StreamState& stream = m_card->stream;
    stream.state = static_cast<std::uint32_t>(state);
    stream.written = m_total_written;
    stream.played = m_totals.played;
}

// ---- Card and clock -----------------------------------------------------------------------------

void Pcm::follow_card() {
    follow_clock();
    if (!dead()) {
        follow_commands();
    } else if (m_io.state != SND_PCM_STATE_DISCONNECTED) {
        stop_clock();
        m_io.state = SND_PCM_STATE_DISCONNECTED;
    }
}

void Pcm::follow_clock() {
    const std::int64_t now = now_ns();
    const std::uint64_t by_hand = m_card->manual_frames - m_manual_seen;
    m_manual_seen += by_hand;
    play_until(now);
    if (by_hand > 0 && m_clock.running()) {
        m_clock.move_by_hand(by_hand, now);
        play_until(now);
    }
    if (m_speed_seen != m_card->speed) {
        m_speed_seen = m_card->speed;
        m_clock.set_speed(static_cast<double>(m_speed_seen) / kSpeedUnit, now);
    }
    if (!m_clock.running() || m_io.state != SND_PCM_STATE_RUNNING) {
        return;
    }
    if (m_card->fixed.patient == 0 && m_io.buffer_size - queued() >= m_stop_threshold) {
        fall_into_underrun();
    } else if (m_clock.position(now) > m_written) {
        m_clock.hold_at(m_written, now);
    }
}

void Pcm::follow_commands() {
    if (std::exchange(m_underruns_seen, m_card->underrun_commands) != m_underruns_seen &&
        m_io.state == SND_PCM_STATE_RUNNING) {
        fall_into_underrun();
    }
    if (std::exchange(m_suspends_seen, m_card->suspend_commands) != m_suspends_seen) {
        fall_asleep();
    }
}

void Pcm::reset_clock() {
    m_speed_seen = m_card->speed;
    m_clock.reset(m_io.rate, static_cast<double>(m_speed_seen) / kSpeedUnit);
}

void Pcm::stop_clock() {
    const std::int64_t now = now_ns();
    play_until(now);
    m_clock.stop(now, m_written);
}

// Plays what the clock has reached by `now`; before each change of the clock, so that a frame is
// timed by the pace at which it was played.
void Pcm::play_until(std::int64_t now) {
    if (!m_clock.running()) {
        return;
    }
    const std::uint64_t frames = std::min(m_clock.position(now), m_written) - m_played;
    if (frames == 0) {
        return;
    }
    if (m_recorder != nullptr) {
        m_recorder->play(static_cast<std::size_t>(frames), m_clock, m_played);
    }
    m_played += frames;
    m_totals.played += frames;
    m_card->totals.frames_played.fetch_add(frames);
}

void Pcm::lose_queue() {
    const std::uint64_t lost = queued();
    if (lost == 0) {
        return;
    }
    if (m_recorder != nullptr) {
        m_recorder->discard();
    }
    m_written = m_played;
    m_totals.dropped += lost;
    ++m_totals.drops;
    m_card->totals.frames_dropped.fetch_add(lost);
    m_card->totals.drops.fetch_add(1);
}

// Prepared for sound or in it: what an underrun or a suspend ends.
bool Pcm::is_awake() const {
    return m_io.state == SND_PCM_STATE_PREPARED || m_io.state == SND_PCM_STATE_RUNNING ||
           m_io.state == SND_PCM_STATE_PAUSED || m_io.state == SND_PCM_STATE_DRAINING;
}

void Pcm::fall_into_underrun() {
    if (!is_awake()) {
        return;
    }
    stop_clock();
    lose_queue();
    ++m_totals.underruns;
    m_card->totals.underruns.fetch_add(1);
    flush_recording();
    m_io.state = SND_PCM_STATE_XRUN;
}

void Pcm::fall_asleep() {
    if (!is_awake()) {
        return;
    }
    stop_clock();
    m_state_before_sleep = m_io.state;
    m_io.state = SND_PCM_STATE_SUSPENDED;
}

void Pcm::wake_up() {
    m_io.state = m_state_before_sleep;
    if (m_io.state == SND_PCM_STATE_RUNNING || m_io.state == SND_PCM_STATE_DRAINING) {
        m_clock.start(now_ns());
    }
}

// The answer -ENOSYS would make snd_pcm_recover prepare the stream; alsa-lib drops the answer of a
// plug-in, so the card prepares by itself. alsa-lib's private copy of the hardware pointer can't be
// reset from here: both pointers go on from where they are.
void Pcm::prepare_after_failed_resume() {
    lose_queue();
    flush_recording();
    m_clock.hold_at(m_played, now_ns());
    m_io.hw_ptr = m_last_pointer;
    m_io.appl_ptr = static_cast<snd_pcm_uframes_t>(m_played % m_boundary);
    m_io.state = SND_PCM_STATE_PREPARED;
}

void Pcm::flush_recording() {
    if (m_recorder != nullptr) {
        m_recorder->flush(m_totals);
    }
}

void Pcm::end_recording() {
    if (m_recorder != nullptr) {
        m_recorder->close(m_totals);
    }
    m_recorder.reset();
}

// ---- Parameters and transport -------------------------------------------------------------------

int Pcm::hw_params() {
    const std::lock_guard<std::mutex> lock(m_mutex);
    if (const int error = enter(Op::hw_params); error < 0) {
        return error;
    }
    end_recording();
    m_totals = {};
    m_total_written = 0;
    reset_clock();
    const Recorder::Format format = {
        m_io.format, m_io.rate, m_io.channels,
        static_cast<std::size_t>(snd_pcm_format_physical_width(m_io.format)) / 8 * m_io.channels};
    if (m_card->recording != 0) {
        m_recorder = std::make_unique<Recorder>(
            m_card.directory(), static_cast<unsigned>(m_card->next_recording.fetch_add(1)), format,
            m_io.buffer_size);
    }
    StreamState& stream = m_card->stream;
    stream.format = static_cast<std::uint32_t>(m_io.format);
    stream.rate = m_io.rate;
    stream.channels = m_io.channels;
    stream.buffer_frames = m_io.buffer_size;
    stream.period_frames = m_io.period_size;
    publish(SND_PCM_STATE_SETUP);
    return 0;
}

int Pcm::sw_params(snd_pcm_sw_params_t* params) {
    const std::lock_guard<std::mutex> lock(m_mutex);
    snd_pcm_sw_params_get_boundary(params, &m_boundary);
    snd_pcm_sw_params_get_avail_min(params, &m_avail_min);
    snd_pcm_sw_params_get_stop_threshold(params, &m_stop_threshold);
    return leave(m_io.state);
}

// alsa-lib has zeroed its pointers before it calls this, whether it succeeds or not.
int Pcm::prepare() {
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_pointers_bent = false;
    m_pending_pointer_error = 0;
    follow_clock();
    lose_queue();
    m_played = m_written = 0;
    m_last_pointer = 0;
    reset_clock();
    int error = enter(Op::prepare);
    if (error == 0 && m_io.state == SND_PCM_STATE_SUSPENDED &&
        m_card->resume_mode == static_cast<std::uint32_t>(Resume::stuck)) {
        error = -ESTRPIPE;
    }
    return error < 0 ? leave(m_io.state, error) : leave(SND_PCM_STATE_PREPARED);
}

int Pcm::start() {
    const std::lock_guard<std::mutex> lock(m_mutex);
    if (const int error = enter_sound(Op::start); error < 0) {
        return leave(m_io.state, error);
    }
    m_clock.start(now_ns());
    return leave(SND_PCM_STATE_RUNNING);
}

// snd_pcm_drop, and what ends a drain. alsa-lib ignores the result.
int Pcm::stop() {
    const std::lock_guard<std::mutex> lock(m_mutex);
    enter(Op::drop);
    stop_clock();
    lose_queue();
    flush_recording();
    return leave(SND_PCM_STATE_SETUP);
}

int Pcm::pause(bool enable) {
    const std::lock_guard<std::mutex> lock(m_mutex);
    if (const int error = enter_sound(Op::pause); error < 0) {
        return leave(m_io.state, error);
    }
    if (!enable) {
        m_clock.start(now_ns());
        return leave(SND_PCM_STATE_RUNNING);
    }
    stop_clock();
    flush_recording();
    return leave(SND_PCM_STATE_PAUSED);
}

int Pcm::resume() {
    const std::lock_guard<std::mutex> lock(m_mutex);
    const int error = enter(Op::resume);
    if (error < 0 || m_io.state != SND_PCM_STATE_SUSPENDED) {
        return leave(m_io.state, error);
    }
    switch (static_cast<Resume>(m_card->resume_mode.load())) {
        case Resume::works:
            wake_up();
            break;
        case Resume::unsupported:
            prepare_after_failed_resume();
            break;
        case Resume::stuck:
            break;
    }
    return leave(m_io.state);
}

snd_pcm_sframes_t Pcm::transfer(const snd_pcm_channel_area_t* areas, snd_pcm_uframes_t offset,
                                snd_pcm_uframes_t size) {
    const std::lock_guard<std::mutex> lock(m_mutex);
    const bool begins = offset == 0;  // of one snd_pcm_writei, which may transfer in several pieces
    int error = 0;
    if (begins) {
        error = enter_sound(Op::write);
        const int cut = begin_call(m_card->short_writes);
        m_write_cut = cut < 0;
        if (m_write_cut) {
            size = std::min(size, static_cast<snd_pcm_uframes_t>(-cut));
        }
    } else {
        error = m_write_cut ? -EAGAIN : state_error();
    }
    size = std::min<snd_pcm_uframes_t>(size, m_io.buffer_size - queued());
    if (error == 0 && size == 0) {
        error = -EAGAIN;
    }
    if (error < 0) {
        return leave(m_io.state, error);
    }

    const unsigned char* frames =
        static_cast<const unsigned char*>(areas->addr) + (areas->first + offset * areas->step) / 8;
    if (m_recorder != nullptr) {
        m_recorder->queue(frames, size);
    } else {
        look_at_each_page({frames, size * areas->step / 8});
    }
    m_written += size;
    m_total_written += size;
    m_card->totals.frames_written.fetch_add(size);
    leave(m_io.state);
    return static_cast<snd_pcm_sframes_t>(size);
}

// ---- Drain --------------------------------------------------------------------------------------

// alsa-lib has set the state to DRAINING. With O_NONBLOCK on the descriptor, whoever set it, the
// answer is -EAGAIN as from a driver: the queue plays on as long as the handle is left alone.
int Pcm::drain() {
    std::unique_lock<std::mutex> lock(m_mutex);
    int error = enter_sound(Op::drain);
    if (error < 0) {
        return give_up_drain(error);
    }
    if (!m_clock.running()) {
        m_clock.start(now_ns());
    }
    if (!nonblocking()) {
        error = wait_for_end(lock);
    } else if (queued() > 0) {
        error = -EAGAIN;
    }
    return leave(m_io.state, error);
}

// A driver that is interrupted goes on draining, one that fails stops the stream.
int Pcm::give_up_drain(int error) {
    if (m_io.state == SND_PCM_STATE_DRAINING && error != -EINTR && error != -EAGAIN) {
        stop_clock();
        lose_queue();
        flush_recording();
        m_io.state = SND_PCM_STATE_SETUP;
    }
    return leave(m_io.state, error);
}

int Pcm::wait_for_end(std::unique_lock<std::mutex>& lock) {
    while (queued() > 0 && m_clock.running()) {
        const std::int64_t deadline = m_clock.time_of(m_written);
        lock.unlock();
        wait_until(deadline);
        lock.lock();
        follow_card();
        if (const int error = state_error(); error < 0) {
            return error;
        }
    }
    return 0;
}

// Sleeps until `deadline` (kDisarmed: without end) or until something happens to the card.
void Pcm::wait_until(std::int64_t deadline) {
    const std::int64_t wait = std::max<std::int64_t>(deadline - now_ns(), 0);
    const timespec timeout = {static_cast<time_t>(wait / kNsPerSecond),
                              static_cast<long>(wait % kNsPerSecond)};
    pollfd event = {m_watch.get(), POLLIN, 0};
    if (ppoll(&event, 1, deadline == kDisarmed ? nullptr : &timeout, nullptr) > 0) {
        drain_watch(m_watch);
    }
}

// snd_pcm_nonblock reaches a plug-in only as a stored value, and may find O_NONBLOCK on the
// descriptor set by an event loop behind alsa-lib's back: the flag is what counts.
void Pcm::obey_nonblock_request() {
    const int request = std::exchange(m_io.nonblock, kNonblockUntouched);
    if (request == kNonblockUntouched) {
        return;
    }
    const int flags = fcntl(m_epoll.get(), F_GETFL);
    fcntl(m_epoll.get(), F_SETFL, request != 0 ? flags | O_NONBLOCK : flags & ~O_NONBLOCK);
}

// ---- Position -----------------------------------------------------------------------------------

int Pcm::delay(snd_pcm_sframes_t* frames) {
    const std::lock_guard<std::mutex> lock(m_mutex);
    int error = enter(Op::delay);
    if (error == 0) {
        error = state_error();
    }
    if (error == 0 && (m_io.state == SND_PCM_STATE_OPEN || m_io.state == SND_PCM_STATE_SETUP)) {
        error = -EBADFD;
    }
    if (error == 0) {
        *frames = static_cast<snd_pcm_sframes_t>(queued());
    }
    return leave(m_io.state, error);
}

snd_pcm_sframes_t Pcm::pointer() {
    const std::lock_guard<std::mutex> lock(m_mutex);
    if (m_boundary == 0) {
        return 0;
    }
    int error = enter(Op::pointer);
    // snd_pcm_avail asks twice and ignores the first answer: an injected error is repeated once.
    if (error == 0) {
        error = std::exchange(m_pending_pointer_error, 0);
    } else if (state_error() == 0) {
        m_pending_pointer_error = error;
    }
    if (error == 0) {
        error = state_error();
    }
    leave(m_io.state);
    if (error < 0) {
        return fail_pointer(error);
    }
    m_last_pointer = static_cast<snd_pcm_uframes_t>(m_played % m_boundary);
    return static_cast<snd_pcm_sframes_t>(m_last_pointer);
}

// alsa-lib takes every negative answer for an underrun. A driver's other errors (no such device,
// suspended, I/O error) come out of snd_pcm_avail only if the free space that it computes from the
// two pointers, which belong to the plug-in's structure, is that negative number:
//   free = hw + buffer - appl, plus the boundary if negative, once hw has lost one boundary.
// They are put right at the next callback.
snd_pcm_sframes_t Pcm::fail_pointer(int error) {
    if (error == -EPIPE || m_io.state == SND_PCM_STATE_DRAINING) {
        return error;
    }
    m_saved_appl = m_io.appl_ptr;
    m_saved_hw = m_io.hw_ptr;
    m_pointers_bent = true;
    m_io.appl_ptr = 0;
    m_io.hw_ptr = static_cast<snd_pcm_uframes_t>(error) - m_io.buffer_size;
    return static_cast<snd_pcm_sframes_t>(m_last_pointer);  // not moved
}

void Pcm::repair_pointers() {
    if (!std::exchange(m_pointers_bent, false)) {
        return;
    }
    m_io.appl_ptr = m_saved_appl;
    m_io.hw_ptr = m_saved_hw;
}

// ---- Polling ------------------------------------------------------------------------------------

int Pcm::poll_descriptor_count() {
    const std::lock_guard<std::mutex> lock(m_mutex);
    const int error = count_call(Op::poll_descriptor_count);
    return leave(m_io.state, error < 0 ? error : 1);
}

int Pcm::poll_descriptors(pollfd* descriptors, unsigned space) {
    const std::lock_guard<std::mutex> lock(m_mutex);
    const int error = count_call(Op::poll_descriptors);
    if (error < 0 || space == 0) {
        return leave(m_io.state, error);
    }
    *descriptors = {m_epoll.get(), POLLIN, 0};
    return leave(m_io.state, 1);
}

int Pcm::poll_revents(unsigned short* revents) {
    const std::lock_guard<std::mutex> lock(m_mutex);
    drain_watch(m_watch);
    if (const int error = count_call(Op::poll_revents); error < 0) {
        return leave(m_io.state, error);
    }
    switch (m_io.state) {
        case SND_PCM_STATE_PREPARED:
        case SND_PCM_STATE_RUNNING:
        case SND_PCM_STATE_PAUSED:
            *revents = has_room() ? POLLOUT : 0;
            break;
        case SND_PCM_STATE_DRAINING:
            *revents = queued() == 0 ? POLLOUT : 0;
            break;
        default:
            *revents = POLLOUT | POLLERR;
            break;
    }
    if (*revents == POLLOUT) {
        m_card->totals.polls_with_room.fetch_add(1);
    }
    arm(next_wake(m_io.state));
    publish(m_io.state);
    return 0;
}

// When the descriptor must become readable, in monotonic ns.
std::int64_t Pcm::next_wake(snd_pcm_state_t state) const {
    switch (state) {
        case SND_PCM_STATE_OPEN:
            return kDisarmed;
        case SND_PCM_STATE_PREPARED:
        case SND_PCM_STATE_PAUSED:
            return has_room() ? kAtOnce : kDisarmed;
        case SND_PCM_STATE_RUNNING:
            if (has_room()) {
                return kAtOnce;
            }
            return m_clock.time_of(std::min(m_written + m_avail_min - m_io.buffer_size, m_written));
        case SND_PCM_STATE_DRAINING:
            return queued() == 0 ? kAtOnce : m_clock.time_of(m_written);
        default:
            return kAtOnce;
    }
}

void Pcm::arm(std::int64_t deadline) {
    if (deadline == m_armed_for || (deadline == kAtOnce && readable())) {
        return;  // setting a timer costs more than all the rest of a call
    }
    m_armed_for = deadline;
    itimerspec timer = {};
    timer.it_value.tv_sec = static_cast<time_t>(deadline / kNsPerSecond);
    timer.it_value.tv_nsec = static_cast<long>(deadline % kNsPerSecond);
    timerfd_settime(m_timer.get(), TFD_TIMER_ABSTIME, &timer, nullptr);
}

}  // namespace

}  // namespace simcard

#pragma GCC visibility push(default)
extern "C" {

SND_PCM_PLUGIN_DEFINE_FUNC(nuviosim) {
    (void)root;
    return simcard::open_from_configuration<simcard::Pcm>(pcmp, name, conf, stream, mode);
}

SND_PCM_PLUGIN_SYMBOL(nuviosim)
}
#pragma GCC visibility pop
