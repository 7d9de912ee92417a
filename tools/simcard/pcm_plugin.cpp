/*
 * The simulated card's PCM: a playback device of alsa-lib's I/O plug-in kind whose hardware pointer
 * follows the clock.
 *
 * The poll descriptor is an epoll descriptor over a timer (room for avail_min frames, end of a
 * drain) and a watch of the card's stream events. Once readable it stays so until
 * snd_pcm_poll_descriptors_revents finds that there is nothing to report; a write alone does not
 * clear it, as with other plug-ins.
 *
 * Threads: alsa-lib calls some callbacks inside its own lock and some (prepare, drain, the poll
 * callbacks) outside; Pcm's mutex covers all of them.
 */
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
#include <string>
#include <utility>

#include "tools/simcard/file_descriptor.h"
#include "tools/simcard/recorder.h"
#include "tools/simcard/shared_state.h"
#include "tools/simcard/stream_clock.h"

namespace simcard {

namespace {

constexpr std::int64_t ns_per_second = 1'000'000'000;
/* Bytes. The smallest buffer has more frames than the largest errno, see fail_pointer. */
constexpr unsigned minimum_period_bytes = 64;
constexpr unsigned minimum_buffer_bytes = 4608;
constexpr unsigned maximum_buffer_bytes = 64 * 1024 * 1024;
/* snd_pcm_ioplug_t::nonblock until the program calls snd_pcm_nonblock, which stores 0, 1 or 2. */
constexpr int nonblock_untouched = -1;
constexpr std::int64_t disarmed = 0;
constexpr std::int64_t at_once = 1;

std::int64_t now_ns() {
    timespec now = {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<std::int64_t>(now.tv_sec) * ns_per_second + now.tv_nsec;
}

/* One open PCM handle. Made by open(), deleted by alsa-lib's close callback. */
class Pcm {
  public:
    static int open(snd_pcm_t** pcm, const char* name, const std::string& directory,
                    snd_pcm_stream_t stream, int mode);
    explicit Pcm(Mapping card) : card_(std::move(card)) {}
    ~Pcm();

    /* The callbacks, each 0 or a negative errno unless alsa-lib wants something else. */
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

    /* Entry and exit of callbacks. */
    int count_call(Op op);
    int enter(Op op);
    int state_error() const;
    int leave(snd_pcm_state_t state, int result = 0);
    void publish(snd_pcm_state_t state);

    /* What happened since the last callback. */
    void follow_card();
    void follow_clock();
    void follow_commands();

    void consume(std::uint64_t frames);
    void lose_queue();
    void stop_clock() { clock_.stop(now_ns()); }
    void reset_clock();
    void fall_into_underrun();
    void fall_asleep();
    void wake_up();
    void prepare_after_failed_resume();
    void flush_recording();
    void end_recording();

    snd_pcm_sframes_t fail_pointer(int error);
    void repair_pointers();

    void obey_nonblock_request();
    bool nonblocking() const { return (fcntl(epoll_.get(), F_GETFL) & O_NONBLOCK) != 0; }
    int give_up_drain(int error);
    int wait_for_end(std::unique_lock<std::mutex>& lock);
    void wait_until(std::int64_t deadline);

    std::int64_t next_wake(snd_pcm_state_t state) const;
    void arm(std::int64_t deadline);
    bool readable() const { return armed_for_ != disarmed && now_ns() >= armed_for_; }
    bool has_room() const { return io_.buffer_size - queued() >= avail_min_; }
    std::uint64_t queued() const { return written_ - played_; }
    bool dead() const { return card_->plugged == 0 || card_->unplugs != unplugs_seen_; }

    snd_pcm_ioplug_t io_ = {};
    std::mutex mutex_;
    Mapping card_;
    FileDescriptor epoll_, timer_, watch_;
    std::int64_t armed_for_ = disarmed; /* monotonic ns; the timer's expiry */

    StreamClock clock_;
    std::uint64_t written_ = 0, played_ = 0; /* frames since prepare */
    std::unique_ptr<Recorder> recorder_;
    Recorder::Totals totals_;
    std::uint64_t total_written_ = 0; /* frames of this recording */

    snd_pcm_uframes_t boundary_ = 0, avail_min_ = 1, stop_threshold_ = 0;
    snd_pcm_state_t state_before_sleep_ = SND_PCM_STATE_OPEN;

    /* Sequence numbers of the card as last followed. */
    std::uint64_t unplugs_seen_ = 0, underruns_seen_ = 0, suspends_seen_ = 0, manual_seen_ = 0;
    std::uint64_t speed_seen_ = 0;

    int pending_pointer_error_ = 0; /* negative errno */
    bool pointers_bent_ = false;
    snd_pcm_uframes_t saved_appl_ = 0, saved_hw_ = 0;
    snd_pcm_uframes_t last_pointer_ = 0; /* what alsa-lib last got */
    bool write_cut_ = false;             /* the rest of the current snd_pcm_writei is refused */
};

/* Callback trampolines ------------------------------------------------------------------------- */

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

/* Opening and closing -------------------------------------------------------------------------- */

int Pcm::open(snd_pcm_t** pcm, const char* name, const std::string& directory,
              snd_pcm_stream_t stream, int mode) {
    if (stream != SND_PCM_STREAM_PLAYBACK)
        return -ENODEV;
    std::optional<Mapping> card = Mapping::open(directory);
    if (!card)
        return -errno;
    if (const int error = begin_call(**card, Op::open); error < 0)
        return error;
    if ((*card)->plugged == 0)
        return -ENODEV;
    if ((*card)->fixed.exclusive != 0 && !card->lock_exclusively())
        return -EBUSY;

    auto self = std::make_unique<Pcm>(std::move(*card));
    self->unplugs_seen_ = self->card_->unplugs;
    self->underruns_seen_ = self->card_->underrun_commands;
    self->suspends_seen_ = self->card_->suspend_commands;
    if (const int error = self->make_descriptors((mode & SND_PCM_NONBLOCK) != 0); error < 0)
        return error;

    self->io_.version = SND_PCM_IOPLUG_VERSION;
    self->io_.name = "Simulated sound card";
    self->io_.flags = SND_PCM_IOPLUG_FLAG_MONOTONIC | SND_PCM_IOPLUG_FLAG_BOUNDARY_WA;
    self->io_.callback = Callbacks::table();
    self->io_.private_data = self.get();
    self->io_.poll_fd = self->epoll_.get();
    self->io_.poll_events = POLLIN;
    if (const int error = snd_pcm_ioplug_create(&self->io_, name, stream, mode); error < 0)
        return error;
    self->io_.nonblock = nonblock_untouched;

    Pcm* const opened = self.release(); /* from here on alsa-lib's close callback deletes it */
    if (const int error = opened->restrict_parameters(); error < 0) {
        snd_pcm_ioplug_delete(&opened->io_);
        return error;
    }
    *pcm = opened->io_.pcm;
    return 0;
}

int Pcm::make_descriptors(bool nonblocking) {
    timer_ = FileDescriptor(timerfd_create(CLOCK_MONOTONIC, TFD_NONBLOCK | TFD_CLOEXEC));
    watch_ = watch(card_.directory(), Watchers::streams);
    epoll_ = FileDescriptor(epoll_create1(EPOLL_CLOEXEC));
    if (!timer_.valid() || !watch_.valid() || !epoll_.valid())
        return -errno;
    for (const int fd : {timer_.get(), watch_.get()}) {
        epoll_event event = {};
        event.events = EPOLLIN;
        if (epoll_ctl(epoll_.get(), EPOLL_CTL_ADD, fd, &event) != 0)
            return -errno;
    }
    if (nonblocking && fcntl(epoll_.get(), F_SETFL, O_NONBLOCK) != 0)
        return -errno;
    return 0;
}

int Pcm::restrict_parameters() {
    const FixedState& fixed = card_->fixed;
    const unsigned access[] = {SND_PCM_ACCESS_RW_INTERLEAVED};
    const unsigned smallest_period =
        fixed.impossible != 0 ? maximum_buffer_bytes : minimum_period_bytes;
    const int results[] = {
        snd_pcm_ioplug_set_param_list(&io_, SND_PCM_IOPLUG_HW_ACCESS, std::size(access), access),
        snd_pcm_ioplug_set_param_list(&io_, SND_PCM_IOPLUG_HW_FORMAT, fixed.format_count,
                                      fixed.formats),
        fixed.rate_count > 0
            ? snd_pcm_ioplug_set_param_list(&io_, SND_PCM_IOPLUG_HW_RATE, fixed.rate_count,
                                            fixed.rates)
            : snd_pcm_ioplug_set_param_minmax(&io_, SND_PCM_IOPLUG_HW_RATE, fixed.minimum_rate,
                                              fixed.maximum_rate),
        snd_pcm_ioplug_set_param_minmax(&io_, SND_PCM_IOPLUG_HW_CHANNELS, fixed.minimum_channels,
                                        fixed.maximum_channels),
        snd_pcm_ioplug_set_param_minmax(&io_, SND_PCM_IOPLUG_HW_PERIOD_BYTES, smallest_period,
                                        maximum_buffer_bytes),
        snd_pcm_ioplug_set_param_minmax(&io_, SND_PCM_IOPLUG_HW_BUFFER_BYTES, minimum_buffer_bytes,
                                        maximum_buffer_bytes),
        snd_pcm_ioplug_set_param_minmax(&io_, SND_PCM_IOPLUG_HW_PERIODS, 2, default_periods),
    };
    return std::min(0, *std::min_element(std::begin(results), std::end(results)));
}

Pcm::~Pcm() {
    if (io_.pcm == nullptr)
        return; /* never opened */
    follow_clock();
    lose_queue();
    end_recording();
    card_->totals.closes.fetch_add(1);
}

/* Entry and exit ------------------------------------------------------------------------------- */

/* Counts the call, brings the handle up to date and returns the error injected, if any. */
int Pcm::count_call(Op op) {
    repair_pointers();
    obey_nonblock_request();
    follow_card();
    const int fault = begin_call(*card_, op);
    if (fault == -EPIPE)
        fall_into_underrun();
    else if (fault == -ESTRPIPE)
        fall_asleep();
    return fault;
}

/* The same for calls that need the card to be there. */
int Pcm::enter(Op op) {
    const int fault = count_call(op);
    return io_.state == SND_PCM_STATE_DISCONNECTED ? -ENODEV : fault;
}

int Pcm::state_error() const {
    switch (io_.state) {
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

/* Ends a callback after which the stream is in `state` (some states alsa-lib sets only when the
 * callback has returned). A wake-up that is due stays due. */
int Pcm::leave(snd_pcm_state_t state, int result) {
    if (!readable())
        arm(next_wake(state));
    publish(state);
    return result;
}

void Pcm::publish(snd_pcm_state_t state) {
    StreamState& stream = card_->stream;
    stream.state = static_cast<std::uint32_t>(state);
    stream.written = total_written_;
    stream.played = totals_.played;
}

/* Card and clock ------------------------------------------------------------------------------- */

void Pcm::follow_card() {
    follow_clock();
    if (!dead()) {
        follow_commands();
    } else if (io_.state != SND_PCM_STATE_DISCONNECTED) {
        stop_clock();
        io_.state = SND_PCM_STATE_DISCONNECTED;
    }
}

void Pcm::follow_clock() {
    const std::int64_t now = now_ns();
    const std::uint64_t by_hand = card_->manual_frames - manual_seen_;
    manual_seen_ += by_hand;
    if (clock_.running())
        clock_.move_by_hand(by_hand);
    const std::uint64_t reached = clock_.position(now);
    if (speed_seen_ != card_->speed) {
        speed_seen_ = card_->speed;
        clock_.set_speed(static_cast<double>(speed_seen_) / speed_unit, now);
    }
    if (!clock_.running())
        return;
    consume(std::min(reached, written_) - played_);
    if (io_.state != SND_PCM_STATE_RUNNING)
        return;
    if (card_->fixed.patient == 0 && io_.buffer_size - queued() >= stop_threshold_)
        fall_into_underrun();
    else if (reached > written_)
        clock_.hold_at(written_, now);
}

void Pcm::follow_commands() {
    if (std::exchange(underruns_seen_, card_->underrun_commands) != underruns_seen_ &&
        io_.state == SND_PCM_STATE_RUNNING)
        fall_into_underrun();
    if (std::exchange(suspends_seen_, card_->suspend_commands) != suspends_seen_)
        fall_asleep();
}

void Pcm::reset_clock() {
    speed_seen_ = card_->speed;
    clock_.reset(io_.rate, static_cast<double>(speed_seen_) / speed_unit);
}

void Pcm::consume(std::uint64_t frames) {
    if (frames == 0)
        return;
    if (recorder_ != nullptr)
        recorder_->play(static_cast<std::size_t>(frames));
    played_ += frames;
    totals_.played += frames;
    card_->totals.frames_played.fetch_add(frames);
}

void Pcm::lose_queue() {
    const std::uint64_t lost = queued();
    if (lost == 0)
        return;
    if (recorder_ != nullptr)
        recorder_->discard();
    written_ = played_;
    totals_.dropped += lost;
    ++totals_.drops;
    card_->totals.frames_dropped.fetch_add(lost);
    card_->totals.drops.fetch_add(1);
}

void Pcm::fall_into_underrun() {
    switch (io_.state) {
        case SND_PCM_STATE_PREPARED:
        case SND_PCM_STATE_RUNNING:
        case SND_PCM_STATE_PAUSED:
        case SND_PCM_STATE_DRAINING:
            break;
        default:
            return;
    }
    stop_clock();
    lose_queue();
    ++totals_.underruns;
    card_->totals.underruns.fetch_add(1);
    flush_recording();
    io_.state = SND_PCM_STATE_XRUN;
}

void Pcm::fall_asleep() {
    switch (io_.state) {
        case SND_PCM_STATE_PREPARED:
        case SND_PCM_STATE_RUNNING:
        case SND_PCM_STATE_PAUSED:
        case SND_PCM_STATE_DRAINING:
            break;
        default:
            return;
    }
    stop_clock();
    state_before_sleep_ = io_.state;
    io_.state = SND_PCM_STATE_SUSPENDED;
}

void Pcm::wake_up() {
    io_.state = state_before_sleep_;
    if (io_.state == SND_PCM_STATE_RUNNING || io_.state == SND_PCM_STATE_DRAINING)
        clock_.start(now_ns());
}

/* The answer -ENOSYS would make snd_pcm_recover prepare the stream; alsa-lib drops the answer of a
 * plug-in, so the card prepares by itself. alsa-lib's private copy of the hardware pointer can't be
 * reset from here: both pointers go on from where they are. */
void Pcm::prepare_after_failed_resume() {
    lose_queue();
    flush_recording();
    clock_.hold_at(played_, now_ns());
    io_.hw_ptr = last_pointer_;
    io_.appl_ptr = static_cast<snd_pcm_uframes_t>(played_ % boundary_);
    io_.state = SND_PCM_STATE_PREPARED;
}

void Pcm::flush_recording() {
    if (recorder_ != nullptr)
        recorder_->flush(totals_);
}

void Pcm::end_recording() {
    if (recorder_ != nullptr)
        recorder_->close(totals_);
    recorder_.reset();
}

/* Parameters and transport --------------------------------------------------------------------- */

int Pcm::hw_params() {
    const std::lock_guard<std::mutex> lock(mutex_);
    if (const int error = enter(Op::hw_params); error < 0)
        return error;
    end_recording();
    totals_ = {};
    total_written_ = 0;
    reset_clock();
    const Recorder::Format format = {
        io_.format, io_.rate, io_.channels,
        static_cast<std::size_t>(snd_pcm_format_physical_width(io_.format)) / 8 * io_.channels};
    if (card_->recording != 0)
        recorder_ = std::make_unique<Recorder>(
            card_.directory(), static_cast<unsigned>(card_->next_recording.fetch_add(1)), format,
            io_.buffer_size);
    StreamState& stream = card_->stream;
    stream.format = static_cast<std::uint32_t>(io_.format);
    stream.rate = io_.rate;
    stream.channels = io_.channels;
    stream.buffer_frames = io_.buffer_size;
    stream.period_frames = io_.period_size;
    publish(SND_PCM_STATE_SETUP);
    return 0;
}

int Pcm::sw_params(snd_pcm_sw_params_t* params) {
    const std::lock_guard<std::mutex> lock(mutex_);
    snd_pcm_sw_params_get_boundary(params, &boundary_);
    snd_pcm_sw_params_get_avail_min(params, &avail_min_);
    snd_pcm_sw_params_get_stop_threshold(params, &stop_threshold_);
    return leave(io_.state);
}

/* alsa-lib has zeroed its pointers before it calls this, whether it succeeds or not. */
int Pcm::prepare() {
    const std::lock_guard<std::mutex> lock(mutex_);
    pointers_bent_ = false;
    pending_pointer_error_ = 0;
    follow_clock();
    lose_queue();
    played_ = written_ = 0;
    last_pointer_ = 0;
    reset_clock();
    int error = enter(Op::prepare);
    if (error == 0 && io_.state == SND_PCM_STATE_SUSPENDED &&
        card_->resume_mode == static_cast<std::uint32_t>(Resume::stuck))
        error = -ESTRPIPE;
    return error < 0 ? leave(io_.state, error) : leave(SND_PCM_STATE_PREPARED);
}

int Pcm::start() {
    const std::lock_guard<std::mutex> lock(mutex_);
    int error = enter(Op::start);
    if (error == 0)
        error = state_error();
    if (error < 0)
        return leave(io_.state, error);
    clock_.start(now_ns());
    return leave(SND_PCM_STATE_RUNNING);
}

/* snd_pcm_drop, and what ends a drain. alsa-lib ignores the result. */
int Pcm::stop() {
    const std::lock_guard<std::mutex> lock(mutex_);
    enter(Op::drop);
    stop_clock();
    lose_queue();
    flush_recording();
    return leave(SND_PCM_STATE_SETUP);
}

int Pcm::pause(bool enable) {
    const std::lock_guard<std::mutex> lock(mutex_);
    int error = enter(Op::pause);
    if (error == 0)
        error = state_error();
    if (error < 0)
        return leave(io_.state, error);
    if (!enable) {
        clock_.start(now_ns());
        return leave(SND_PCM_STATE_RUNNING);
    }
    stop_clock();
    flush_recording();
    return leave(SND_PCM_STATE_PAUSED);
}

int Pcm::resume() {
    const std::lock_guard<std::mutex> lock(mutex_);
    const int error = enter(Op::resume);
    if (error < 0 || io_.state != SND_PCM_STATE_SUSPENDED)
        return leave(io_.state, error);
    switch (static_cast<Resume>(card_->resume_mode.load())) {
        case Resume::works:
            wake_up();
            break;
        case Resume::unsupported:
            prepare_after_failed_resume();
            break;
        case Resume::stuck:
            break;
    }
    return leave(io_.state);
}

snd_pcm_sframes_t Pcm::transfer(const snd_pcm_channel_area_t* areas, snd_pcm_uframes_t offset,
                                snd_pcm_uframes_t size) {
    const std::lock_guard<std::mutex> lock(mutex_);
    const bool begins =
        offset == 0; /* of one snd_pcm_writei, which may transfer in several pieces */
    int error = 0;
    if (begins) {
        error = enter(Op::write);
        const int cut = begin_call(card_->short_writes);
        write_cut_ = cut < 0;
        if (write_cut_)
            size = std::min(size, static_cast<snd_pcm_uframes_t>(-cut));
    } else if (write_cut_) {
        error = -EAGAIN;
    }
    if (error == 0)
        error = state_error();
    size = std::min<snd_pcm_uframes_t>(size, io_.buffer_size - queued());
    if (error == 0 && size == 0)
        error = -EAGAIN;
    if (error < 0)
        return leave(io_.state, error);

    if (recorder_ != nullptr) {
        const auto* base = static_cast<const unsigned char*>(areas->addr);
        recorder_->queue(base + (areas->first + offset * areas->step) / 8, size);
    }
    written_ += size;
    total_written_ += size;
    card_->totals.frames_written.fetch_add(size);
    leave(io_.state);
    return static_cast<snd_pcm_sframes_t>(size);
}

/* Drain ---------------------------------------------------------------------------------------- */

/* alsa-lib has set the state to DRAINING. With O_NONBLOCK on the descriptor, whoever set it, the
 * answer is -EAGAIN as from a driver: the queue plays on as long as the handle is left alone. */
int Pcm::drain() {
    std::unique_lock<std::mutex> lock(mutex_);
    int error = enter(Op::drain);
    if (error == 0)
        error = state_error();
    if (error < 0)
        return give_up_drain(error);
    if (!clock_.running())
        clock_.start(now_ns());
    if (!nonblocking())
        error = wait_for_end(lock);
    else if (queued() > 0)
        error = -EAGAIN;
    return leave(io_.state, error);
}

/* A driver that is interrupted goes on draining, one that fails stops the stream. */
int Pcm::give_up_drain(int error) {
    if (io_.state == SND_PCM_STATE_DRAINING && error != -EINTR && error != -EAGAIN) {
        stop_clock();
        lose_queue();
        flush_recording();
        io_.state = SND_PCM_STATE_SETUP;
    }
    return leave(io_.state, error);
}

int Pcm::wait_for_end(std::unique_lock<std::mutex>& lock) {
    while (queued() > 0 && clock_.running()) {
        const std::int64_t deadline = clock_.time_of(written_);
        lock.unlock();
        wait_until(deadline);
        lock.lock();
        follow_card();
        if (const int error = state_error(); error < 0)
            return error;
    }
    return 0;
}

/* Sleeps until `deadline` (disarmed: without end) or until something happens to the card. */
void Pcm::wait_until(std::int64_t deadline) {
    const std::int64_t wait = std::max<std::int64_t>(deadline - now_ns(), 0);
    const timespec timeout = {static_cast<time_t>(wait / ns_per_second),
                              static_cast<long>(wait % ns_per_second)};
    pollfd event = {watch_.get(), POLLIN, 0};
    if (ppoll(&event, 1, deadline == disarmed ? nullptr : &timeout, nullptr) > 0)
        drain_watch(watch_);
}

/* snd_pcm_nonblock reaches a plug-in only as a stored value, and may find O_NONBLOCK on the
 * descriptor set by an event loop behind alsa-lib's back: the flag is what counts. */
void Pcm::obey_nonblock_request() {
    const int request = std::exchange(io_.nonblock, nonblock_untouched);
    if (request == nonblock_untouched)
        return;
    const int flags = fcntl(epoll_.get(), F_GETFL);
    fcntl(epoll_.get(), F_SETFL, request != 0 ? flags | O_NONBLOCK : flags & ~O_NONBLOCK);
}

/* Position ------------------------------------------------------------------------------------- */

int Pcm::delay(snd_pcm_sframes_t* frames) {
    const std::lock_guard<std::mutex> lock(mutex_);
    int error = enter(Op::delay);
    if (error == 0)
        error = state_error();
    if (error == 0 && (io_.state == SND_PCM_STATE_OPEN || io_.state == SND_PCM_STATE_SETUP))
        error = -EBADFD;
    if (error == 0)
        *frames = static_cast<snd_pcm_sframes_t>(queued());
    return leave(io_.state, error);
}

snd_pcm_sframes_t Pcm::pointer() {
    const std::lock_guard<std::mutex> lock(mutex_);
    if (boundary_ == 0)
        return 0;
    int error = enter(Op::pointer);
    /* snd_pcm_avail asks twice and ignores the first answer: an injected error is repeated once. */
    if (error == 0)
        error = std::exchange(pending_pointer_error_, 0);
    else if (state_error() == 0)
        pending_pointer_error_ = error;
    if (error == 0)
        error = state_error();
    leave(io_.state);
    if (error < 0)
        return fail_pointer(error);
    last_pointer_ = static_cast<snd_pcm_uframes_t>(played_ % boundary_);
    return static_cast<snd_pcm_sframes_t>(last_pointer_);
}

/* alsa-lib takes every negative answer for an underrun. A driver's other errors (no such device,
 * suspended, I/O error) come out of snd_pcm_avail only if the free space that it computes from the
 * two pointers, which belong to the plug-in's structure, is that negative number:
 *   free = hw + buffer - appl, plus the boundary if negative, once hw has lost one boundary.
 * They are put right at the next callback. */
snd_pcm_sframes_t Pcm::fail_pointer(int error) {
    if (error == -EPIPE || io_.state == SND_PCM_STATE_DRAINING)
        return error;
    saved_appl_ = io_.appl_ptr;
    saved_hw_ = io_.hw_ptr;
    pointers_bent_ = true;
    io_.appl_ptr = 0;
    io_.hw_ptr = static_cast<snd_pcm_uframes_t>(error) - io_.buffer_size;
    return static_cast<snd_pcm_sframes_t>(last_pointer_); /* not moved */
}

void Pcm::repair_pointers() {
    if (!std::exchange(pointers_bent_, false))
        return;
    io_.appl_ptr = saved_appl_;
    io_.hw_ptr = saved_hw_;
}

/* Polling -------------------------------------------------------------------------------------- */

int Pcm::poll_descriptor_count() {
    const std::lock_guard<std::mutex> lock(mutex_);
    const int error = count_call(Op::poll_descriptor_count);
    return leave(io_.state, error < 0 ? error : 1);
}

int Pcm::poll_descriptors(pollfd* descriptors, unsigned space) {
    const std::lock_guard<std::mutex> lock(mutex_);
    const int error = count_call(Op::poll_descriptors);
    if (error < 0 || space == 0)
        return leave(io_.state, error);
    *descriptors = {epoll_.get(), POLLIN, 0};
    return leave(io_.state, 1);
}

int Pcm::poll_revents(unsigned short* revents) {
    const std::lock_guard<std::mutex> lock(mutex_);
    drain_watch(watch_);
    if (const int error = count_call(Op::poll_revents); error < 0)
        return leave(io_.state, error);
    switch (io_.state) {
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
    if (*revents == POLLOUT)
        card_->totals.polls_with_room.fetch_add(1);
    arm(next_wake(io_.state));
    publish(io_.state);
    return 0;
}

/* When the descriptor must become readable, in monotonic ns. */
std::int64_t Pcm::next_wake(snd_pcm_state_t state) const {
    switch (state) {
        case SND_PCM_STATE_OPEN:
            return disarmed;
        case SND_PCM_STATE_PREPARED:
        case SND_PCM_STATE_PAUSED:
            return has_room() ? at_once : disarmed;
        case SND_PCM_STATE_RUNNING:
            if (has_room())
                return at_once;
            return clock_.time_of(std::min(written_ + avail_min_ - io_.buffer_size, written_));
        case SND_PCM_STATE_DRAINING:
            return queued() == 0 ? at_once : clock_.time_of(written_);
        default:
            return at_once;
    }
}

void Pcm::arm(std::int64_t deadline) {
    if (deadline == armed_for_ || (deadline == at_once && readable()))
        return; /* setting a timer costs more than all the rest of a call */
    armed_for_ = deadline;
    itimerspec timer = {};
    timer.it_value.tv_sec = static_cast<time_t>(deadline / ns_per_second);
    timer.it_value.tv_nsec = static_cast<long>(deadline % ns_per_second);
    timerfd_settime(timer_.get(), TFD_TIMER_ABSTIME, &timer, nullptr);
}

/* The entry point's configuration: `dir`, the card's directory. */
int open_from_configuration(snd_pcm_t** pcm, const char* name, snd_config_t* configuration,
                            snd_pcm_stream_t stream, int mode) {
    const char* directory = nullptr;
    snd_config_t* node = nullptr;
    if (snd_config_search(configuration, "dir", &node) < 0 ||
        snd_config_get_string(node, &directory) < 0) {
        SNDERR("simulated card: the configuration names no dir");
        return -EINVAL;
    }
    return Pcm::open(pcm, name, directory, stream, mode);
}

}  // namespace

}  // namespace simcard

#pragma GCC visibility push(default)
extern "C" {

SND_PCM_PLUGIN_DEFINE_FUNC(nuviosim) {
    (void)root;
    return simcard::open_from_configuration(pcmp, name, conf, stream, mode);
}

SND_PCM_PLUGIN_SYMBOL(nuviosim)
}
#pragma GCC visibility pop
