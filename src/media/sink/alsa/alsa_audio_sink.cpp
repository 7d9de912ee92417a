#include "media/sink/alsa/alsa_audio_sink.h"

#include <algorithm>
#include <cerrno>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "media/sink/alsa/alsa_utilities.h"
#include "media/sink/alsa/descriptor_poller.h"
#include "media/sink/alsa/output_quality.h"
#include "media/sink/alsa/volume_manager.h"
#include "utility/check.h"
#include "utility/log_delegate.h"
#include "utility/uv_utilities.h"

struct audio_sink {
    uv_loop_t* event_loop = nullptr;  // borrowed
    std::string output_device;
    std::string volume_control_device;
    std::string volume_control_element;
    volume_manager_ptr volume_manager;  // null: no volume control
    nuv_audio_quality maximum_audio_quality = NUV_AUDIO_QUALITY_CD;

    void* listener = nullptr;
    audio_sink_space_available_callback space_available_callback = nullptr;
    audio_sink_volume_changed_callback volume_changed_callback = nullptr;
    audio_sink_mute_state_changed_callback mute_state_changed_callback = nullptr;

    // These are set exactly while the sink is open.
    pcm_ptr pcm;
    std::vector<pollfd> pcm_descriptors;  // those of the poller
    descriptor_poller_ptr descriptor_poller;

    unsigned sample_rate = 0;  // frames a second, as asked for
    unsigned channel_count = 0;
    snd_pcm_format_t format = SND_PCM_FORMAT_UNKNOWN;

    // A write left data unplaced and the space signal is due.
    bool waits_for_space = false;
    unsigned failed_space_queries = 0;  // in a row, while waiting
    std::unique_ptr<uv_timer_t, nuvio::ReleasedBy<uv_timer_free>> space_check_timer;
};

namespace {

constexpr unsigned kPauseSilenceMs = 10;
constexpr uint32_t kVolumeWithoutControl = 50;

// How often a device may fail before it counts as failed for good.
constexpr int kMaxPrepares = 3;                  // in one repair
constexpr int kMaxFruitlessWrites = 5;           // in one write
constexpr int kMaxInterruptedDrains = 5;         // in one drain
constexpr unsigned kMaxFailedSpaceQueries = 10;  // in a row, while waiting for space

constexpr uint64_t kSpaceCheckMs = 10;  // while the descriptors are of no use

snd_pcm_format_t nuvio_format_to_alsa_format(nuv_audio_sample_format format) {
    switch (format) {
        case NUV_AUDIO_SAMPLE_FORMAT_16_BIT:
            return SND_PCM_FORMAT_S16_LE;
        case NUV_AUDIO_SAMPLE_FORMAT_24_BIT:
            return SND_PCM_FORMAT_S24_LE;
    }
    return SND_PCM_FORMAT_UNKNOWN;
}

size_t bytes_per_frame(const audio_sink* self) {
    const auto bits = static_cast<size_t>(snd_pcm_format_physical_width(self->format));
    return bits / 8 * self->channel_count;
}

// ---- Repair ---------------------------------------------------------------------------------

// A write can go on from here, if need be after a prepare.
bool is_usable(snd_pcm_state_t state) {
    return state == SND_PCM_STATE_PREPARED || state == SND_PCM_STATE_RUNNING ||
           state == SND_PCM_STATE_PAUSED || state == SND_PCM_STATE_XRUN;
}

// snd_pcm_recover sleeps for as long as a suspended device is being resumed; the loop must not. A
// device that is not resumed at once is prepared, as one that cannot be.
int recover_without_waiting(snd_pcm_t* pcm, int error) {
    if (error == -ESTRPIPE) {
        return snd_pcm_resume(pcm) == 0 ? 0 : snd_pcm_prepare(pcm);
    }
    return snd_pcm_recover(pcm, error, 1);
}

// True: the failed operation may be tried again.
bool alsa_audio_sink_recover_pcm(audio_sink* self, int error) {
    snd_pcm_t* pcm = self->pcm.get();
    if (recover_without_waiting(pcm, error) == 0) {
        app_log(LOG_LEVEL_DEBUG, "ALSA audio sink recovery successful");
        return true;
    }
    log_alsa_error(error, "Unable to recover ALSA audio sink");
    const snd_pcm_state_t state = snd_pcm_state(pcm);
    app_log(LOG_LEVEL_INFO, "pcm state = %d\n", static_cast<int>(state));
    if (state == SND_PCM_STATE_SETUP) {
        return alsa_ok(snd_pcm_prepare(pcm), "Unable to prepare ALSA audio sink");
    }
    return is_usable(state);
}

bool alsa_audio_sink_ensure_pcm_has_runnable_state(audio_sink* self) {
    snd_pcm_t* pcm = self->pcm.get();
    for (int prepares = 0;; ++prepares) {
        const snd_pcm_state_t state = snd_pcm_state(pcm);
        const bool underrun = state == SND_PCM_STATE_XRUN;
        if (state != SND_PCM_STATE_SETUP && !underrun) {
            return is_usable(state);
        }
        if (prepares == kMaxPrepares) {
            app_log(LOG_LEVEL_ERROR, "ALSA audio sink does not become ready after %d prepares",
                    kMaxPrepares);
            return false;
        }
        if (!alsa_ok(snd_pcm_prepare(pcm), underrun
                                               ? "Unable to prepare ALSA audio sink after underrun"
                                               : "Unable to prepare ALSA audio sink")) {
            return false;
        }
    }
}

// Asks the PCM for a count of frames, a second time after a repair. `what` completes the log lines.
template <typename Query>
std::optional<snd_pcm_sframes_t> query_with_recovery(audio_sink* self, const char* what,
                                                     Query query) {
    snd_pcm_sframes_t frames = query(self->pcm.get());
    if (frames >= 0) {
        return frames;
    }
    app_log(LOG_LEVEL_WARNING, "Unable to %s ALSA audio sink, trying to recover", what);
    if (!alsa_audio_sink_recover_pcm(self, static_cast<int>(frames))) {
        return std::nullopt;
    }
    frames = query(self->pcm.get());
    if (frames >= 0) {
        return frames;
    }
    app_log(LOG_LEVEL_ERROR, "Unable to %s ALSA audio sink even after recovery", what);
    return std::nullopt;
}

// ---- Waiting for space ----------------------------------------------------------------------

std::optional<snd_pcm_sframes_t> alsa_audio_sink_get_available_space(audio_sink* self) {
    return query_with_recovery(self, "query available space in", snd_pcm_avail);
}

// The wake-up that led to a write is still on a plug-in's descriptor after it and would be followed
// at once by another, for the frame or two that have been played meanwhile. A plug-in (dmix) takes
// it back when asked about a readable descriptor.
void take_back_wake_up(audio_sink* self) {
    for (pollfd& descriptor : self->pcm_descriptors) {
        descriptor.revents = POLLIN;
    }
    unsigned short revents = 0;
    snd_pcm_poll_descriptors_revents(self->pcm.get(), self->pcm_descriptors.data(),
                                     static_cast<unsigned>(self->pcm_descriptors.size()), &revents);
}

void start_waiting_for_space(audio_sink* self) {
    if (!self->waits_for_space) {
        take_back_wake_up(self);
    }
    self->waits_for_space = true;
    self->failed_space_queries = 0;
    descriptor_poller_start_polling(self->descriptor_poller.get());
}

void stop_waiting_for_space(audio_sink* self) {
    self->waits_for_space = false;
    uv_timer_stop(self->space_check_timer.get());
    descriptor_poller_stop_polling(self->descriptor_poller.get());
}

// Room can only come from a device that runs. One that does not, or that cannot tell its room again
// and again, would be polled for ever: there the wait ends too, and the write that follows the
// signal finds and reports the failure.
bool space_may_come(audio_sink* self, std::optional<snd_pcm_sframes_t> space) {
    if (space) {
        self->failed_space_queries = 0;
        return *space == 0;
    }
    return snd_pcm_state(self->pcm.get()) == SND_PCM_STATE_RUNNING &&
           ++self->failed_space_queries < kMaxFailedSpaceQueries;
}

void check_space(audio_sink* self) {
    if (space_may_come(self, alsa_audio_sink_get_available_space(self))) {
        // Again: an error on a descriptor has ended its watch.
        descriptor_poller_start_polling(self->descriptor_poller.get());
        return;
    }
    stop_waiting_for_space(self);
    if (self->space_available_callback != nullptr) {
        self->space_available_callback(self, self->listener);
    }
}

void check_space_in(audio_sink* self, uint64_t delay_ms) {
    uv_timer_start(
        self->space_check_timer.get(),
        [](uv_timer_t* timer) { check_space(static_cast<audio_sink*>(timer->data)); }, delay_ms, 0);
}

// While the descriptors are of no use: polled on, they would make the loop spin.
void check_space_later(audio_sink* self) {
    descriptor_poller_stop_polling(self->descriptor_poller.get());
    check_space_in(self, kSpaceCheckMs);
}

void alsa_audio_sink_on_pcm_descriptor_poll_event(descriptor_poller* poller, pollfd* descriptors,
                                                  unsigned count, void* user_data) {
    auto* self = static_cast<audio_sink*>(user_data);
    NUV_CHECK(self != NULL);
    NUV_CHECK(poller == self->descriptor_poller.get());
    NUV_CHECK(self->pcm != NULL);
    // Plug-ins (dmix, sound servers) take back a wake-up that brought no room only in this call;
    // without it their descriptor stays readable, and the loop would spin until there is room. What
    // it says does not matter, but for an error: that may stay on the descriptor.
    unsigned short revents = 0;
    if (snd_pcm_poll_descriptors_revents(self->pcm.get(), descriptors, count, &revents) < 0) {
        check_space_later(self);
        return;
    }
    check_space(self);
    if (self->waits_for_space && (revents & POLLERR) != 0) {
        check_space_later(self);
    }
}

// ---- Writing --------------------------------------------------------------------------------

// How many frames a failed write has placed all the same. alsa-lib starts a prepared plug-in with
// what it was given and reports a failed start instead of the count.
size_t frames_kept(snd_pcm_t* pcm, snd_pcm_sframes_t space_before) {
    if (snd_pcm_state(pcm) != SND_PCM_STATE_PREPARED) {
        return 0;
    }
    const snd_pcm_sframes_t space = snd_pcm_avail_update(pcm);
    return space >= 0 && space < space_before ? static_cast<size_t>(space_before - space) : 0;
}

// A driver that fails to start with what it was given may keep that to itself; a PCM that does not
// run never has room again.
bool ensure_started(audio_sink* self) {
    return snd_pcm_state(self->pcm.get()) != SND_PCM_STATE_PREPARED ||
           alsa_ok(snd_pcm_start(self->pcm.get()), "Unable to start ALSA audio sink");
}

// Writes all the frames, for which there is room, repairing the PCM when it fails. False when it
// has failed for good.
bool write_frames(audio_sink* self, const void* data, size_t frames, const char* what) {
    if (frames == 0) {
        return true;
    }
    snd_pcm_t* pcm = self->pcm.get();
    const auto* position = static_cast<const uint8_t*>(data);
    int fruitless_writes = 0;
    while (frames > 0) {
        const bool starts = snd_pcm_state(pcm) == SND_PCM_STATE_PREPARED;
        const snd_pcm_sframes_t space = starts ? snd_pcm_avail_update(pcm) : 0;
        const snd_pcm_sframes_t written = snd_pcm_writei(pcm, position, frames);
        size_t placed = written > 0 ? static_cast<size_t>(written) : 0;
        if (written < 0) {
            app_log(LOG_LEVEL_WARNING, "Unable to write %s ALSA audio sink, trying to recover",
                    what);
            if (!alsa_audio_sink_recover_pcm(self, static_cast<int>(written))) {
                return false;
            }
            placed = starts ? std::min(frames_kept(pcm, space), frames) : 0;
        }
        if (placed == 0 && ++fruitless_writes == kMaxFruitlessWrites) {
            app_log(LOG_LEVEL_ERROR, "ALSA audio sink took nothing in %d writes",
                    kMaxFruitlessWrites);
            return false;
        }
        position += placed * bytes_per_frame(self);
        frames -= placed;
    }
    return ensure_started(self);
}

bool alsa_audio_sink_write_silence(audio_sink* self, unsigned duration_ms) {
    const size_t frames = static_cast<size_t>(self->sample_rate) * duration_ms / 1000;
    const std::vector<uint8_t> silence(frames * bytes_per_frame(self));
    return write_frames(self, silence.data(), frames, "silence to");
}

int drain_despite_signals(snd_pcm_t* pcm) {
    int rc = -EINTR;
    for (int tries = 0; rc == -EINTR && tries < kMaxInterruptedDrains; ++tries) {
        rc = snd_pcm_drain(pcm);
    }
    return rc;
}

// ---- Opening --------------------------------------------------------------------------------

bool set_rate(snd_pcm_t* pcm, snd_pcm_hw_params_t* params, unsigned requested) {
    unsigned granted = requested;
    if (!alsa_ok(snd_pcm_hw_params_set_rate_near(pcm, params, &granted, nullptr),
                 "Unable to set ALSA PCM's sample rate to %u", requested)) {
        return false;
    }
    if (granted != requested) {
        app_log(LOG_LEVEL_WARNING,
                "Requested ALSA PCM's sample rate to be set to %u, got %u instead", requested,
                granted);
    }
    return true;
}

// Buffer, period and software parameters stay ALSA's defaults.
bool set_hw_params(snd_pcm_t* pcm, unsigned rate, unsigned channels, snd_pcm_format_t format) {
    const hw_params_ptr owner = new_hw_params();
    snd_pcm_hw_params_t* params = owner.get();
    return alsa_ok(snd_pcm_hw_params_any(pcm, params),
                   "Unable to get any playback configurations from ALSA") &&
           alsa_ok(snd_pcm_hw_params_set_rate_resample(pcm, params, 1),
                   "Unable to enable ALSA PCM's resampling") &&
           alsa_ok(snd_pcm_hw_params_set_access(pcm, params, SND_PCM_ACCESS_RW_INTERLEAVED),
                   "Unable to set ALSA PCM's access to interleaved") &&
           set_rate(pcm, params, rate) &&
           alsa_ok(snd_pcm_hw_params_set_channels(pcm, params, channels),
                   "Unable to set ALSA PCM's channel count to %u", channels) &&
           alsa_ok(snd_pcm_hw_params_set_format(pcm, params, format),
                   "Unable to set ALSA PCM's format to %s", snd_pcm_format_name(format)) &&
           alsa_ok(snd_pcm_hw_params(pcm, params), "Unable to set ALSA PCM's HW params");
}

bool make_descriptor_poller(audio_sink* self) {
    poll_descriptors descriptors = get_poll_descriptors(self->pcm.get());
    if (descriptors.count == 0) {
        return false;
    }
    self->pcm_descriptors.assign(descriptors.entries.get(),
                                 descriptors.entries.get() + descriptors.count);
    self->descriptor_poller.reset(
        descriptor_poller_new(self->event_loop, std::move(descriptors.entries), descriptors.count,
                              {self, alsa_audio_sink_on_pcm_descriptor_poll_event}));
    if (!self->descriptor_poller) {
        app_log(LOG_LEVEL_ERROR, "Unable to poll ALSA PCM's descriptors");
        return false;
    }
    return true;
}

// ---- Creation -------------------------------------------------------------------------------

void alsa_audio_sink_on_volume_manager_volume_changed(volume_manager* manager, uint32_t volume,
                                                      void* user_data) {
    auto* self = static_cast<audio_sink*>(user_data);
    NUV_CHECK(self != NULL);
    NUV_CHECK(manager == self->volume_manager.get());
    if (self->volume_changed_callback != nullptr) {
        self->volume_changed_callback(self, volume, self->listener);
    }
}

void alsa_audio_sink_on_volume_manager_mute_state_changed(volume_manager* manager, bool muted,
                                                          void* user_data) {
    auto* self = static_cast<audio_sink*>(user_data);
    NUV_CHECK(self != NULL);
    NUV_CHECK(manager == self->volume_manager.get());
    if (self->mute_state_changed_callback != nullptr) {
        self->mute_state_changed_callback(self, muted, self->listener);
    }
}

volume_manager_ptr new_volume_manager(audio_sink* self) {
    return volume_manager_ptr(
        volume_manager_new(self->event_loop, self->volume_control_device.c_str(),
                           self->volume_control_element.c_str(), 0,
                           {self, alsa_audio_sink_on_volume_manager_volume_changed,
                            alsa_audio_sink_on_volume_manager_mute_state_changed}));
}

// The mixer of a card that was pulled out is dead for good. When the card is back it has another
// one, which is given the volume of the old.
void renew_lost_volume_manager(audio_sink* self) {
    if (!self->volume_manager || !volume_manager_is_lost(self->volume_manager.get())) {
        return;
    }
    volume_manager_ptr renewed = new_volume_manager(self);
    if (!renewed) {
        return;
    }
    const uint32_t volume = volume_manager_get_reported_volume(self->volume_manager.get());
    const bool muted = volume_manager_get_reported_mute_state(self->volume_manager.get());
    self->volume_manager = std::move(renewed);
    volume_manager_set_volume(self->volume_manager.get(), volume);
    volume_manager_set_mute_state(self->volume_manager.get(), muted);
    app_log(LOG_LEVEL_INFO, "System volume control is back");
}

// Opens the device once to learn what it can do. A device that does not open may do so later and
// counts as CD; none: it can never play.
std::optional<nuv_audio_quality> probe_device(const std::string& device,
                                              const output_settings& settings, int maximum_rate) {
    pcm_ptr probe;
    const int rc = open_playback_pcm(probe, device.c_str());
    if (!alsa_ok(rc, "Unable to open ALSA audio device '%s'", device.c_str())) {
        return NUV_AUDIO_QUALITY_CD;
    }
    return probe_quality(probe.get(), device.c_str(), settings, maximum_rate);
}

}  // namespace

audio_sink* audio_sink_new(uv_loop_t* event_loop, const char* output_device,
                           const char* volume_control_device, const char* volume_control_element) {
    NUV_CHECK(event_loop != NULL);
    NUV_CHECK(output_device != NULL);
    NUV_CHECK(volume_control_device != NULL);
    NUV_CHECK(volume_control_element != NULL);

    const output_settings settings = read_output_settings(unset_items::are_logged);
    const int maximum_rate = parse_maximum_rate(settings);

    std::unique_ptr<audio_sink, nuvio::ReleasedBy<audio_sink_free>> self(new audio_sink);
    self->event_loop = event_loop;
    self->output_device = output_device;
    self->volume_control_device = volume_control_device;
    self->volume_control_element = volume_control_element;
    self->space_check_timer.reset(uv_timer_new(event_loop, self.get()));
    self->volume_manager = new_volume_manager(self.get());
    if (!self->volume_manager) {
        app_log(LOG_LEVEL_WARNING,
                "Volume manager initialization failed; continuing without system volume control");
    }
    const auto quality = probe_device(self->output_device, settings, maximum_rate);
    if (!quality) {
        return nullptr;
    }
    self->maximum_audio_quality = *quality;
    return self.release();
}

void audio_sink_free(audio_sink* self) {
    NUV_CHECK(self != NULL);
    audio_sink_close(self);
    self->volume_manager.reset();
    snd_config_update_free_global();
    delete self;
}

void audio_sink_set_event_listener(audio_sink* self, void* listener,
                                   audio_sink_space_available_callback space_available,
                                   audio_sink_volume_changed_callback volume_changed,
                                   audio_sink_mute_state_changed_callback mute_state_changed) {
    NUV_CHECK(self != NULL);
    self->listener = listener;
    self->space_available_callback = space_available;
    self->volume_changed_callback = volume_changed;
    self->mute_state_changed_callback = mute_state_changed;
}

nuv_audio_quality audio_sink_get_maximum_supported_audio_quality(audio_sink* self) {
    NUV_CHECK(self != NULL);
    const output_settings settings = read_output_settings(unset_items::are_silent);
    self->maximum_audio_quality = quality_from_settings(settings, parse_maximum_rate(settings))
                                      .value_or(NUV_AUDIO_QUALITY_CD);
    return self->maximum_audio_quality;
}

bool audio_sink_is_open(const audio_sink* self) {
    NUV_CHECK(self != NULL);
    return self->pcm != nullptr;
}

bool audio_sink_open(audio_sink* self, const nuv_audio_format* format) {
    NUV_CHECK(self != NULL);
    NUV_CHECK(format != NULL);
    if (self->pcm) {
        app_log(LOG_LEVEL_ERROR, "Unable to open ALSA audio sink: sink is already open");
        return false;
    }
    const snd_pcm_format_t alsa_format = nuvio_format_to_alsa_format(format->sample_format);
    if (alsa_format == SND_PCM_FORMAT_UNKNOWN) {
        app_log(LOG_LEVEL_ERROR, "Unable to open ALSA audio sink: unknown sample format %d",
                static_cast<int>(format->sample_format));
        return false;
    }
    if (!alsa_ok(open_playback_pcm(self->pcm, self->output_device.c_str()),
                 "Unable to open ALSA audio sink '%s'", self->output_device.c_str())) {
        return false;
    }
    if (!set_hw_params(self->pcm.get(), format->sample_rate, format->channel_count, alsa_format) ||
        !make_descriptor_poller(self)) {
        audio_sink_close(self);
        return false;
    }
    self->sample_rate = format->sample_rate;
    self->channel_count = format->channel_count;
    self->format = alsa_format;
    renew_lost_volume_manager(self);
    return true;
}

void audio_sink_close(audio_sink* self) {
    NUV_CHECK(self != NULL);
    if (!self->pcm) {
        return;
    }
    self->waits_for_space = false;
    uv_timer_stop(self->space_check_timer.get());
    self->descriptor_poller.reset();
    self->pcm_descriptors.clear();
    self->pcm.reset();
}

size_t audio_sink_write(audio_sink* self, const void* data, size_t size, bool* ok) {
    NUV_CHECK(self != NULL);
    NUV_CHECK(data != NULL);
    NUV_CHECK(size > 0);
    NUV_CHECK(ok != NULL);
    *ok = false;
    if (!self->pcm) {
        app_log(LOG_LEVEL_ERROR, "Unable to write data to ALSA audio sink: device is not open");
        return 0;
    }
    if (!alsa_audio_sink_ensure_pcm_has_runnable_state(self)) {
        return 0;
    }
    const auto space = alsa_audio_sink_get_available_space(self);
    if (!space) {
        return 0;
    }
    const size_t frame_size = bytes_per_frame(self);
    const size_t frames = std::min(size / frame_size, static_cast<size_t>(*space));
    if (!write_frames(self, data, frames, "data to")) {
        return 0;
    }
    const size_t written = frames * frame_size;
    if (written < size) {
        start_waiting_for_space(self);
    }
    *ok = true;
    return written;
}

bool audio_sink_pause(audio_sink* self) {
    NUV_CHECK(self != NULL);
    if (!self->pcm) {
        app_log(LOG_LEVEL_ERROR, "Unable to pause ALSA audio sink: device is not open");
        return false;
    }
    if (!alsa_audio_sink_ensure_pcm_has_runnable_state(self)) {
        return false;
    }
    // ALSA pauses only what runs.
    if (snd_pcm_state(self->pcm.get()) == SND_PCM_STATE_PREPARED &&
        !alsa_audio_sink_write_silence(self, kPauseSilenceMs)) {
        return false;
    }
    return alsa_ok(snd_pcm_pause(self->pcm.get(), 1), "Unable to pause ALSA audio sink");
}

bool audio_sink_resume(audio_sink* self) {
    NUV_CHECK(self != NULL);
    if (!self->pcm) {
        app_log(LOG_LEVEL_ERROR, "Unable to resume ALSA audio sink: device is not open");
        return false;
    }
    return alsa_ok(snd_pcm_pause(self->pcm.get(), 0), "Unable to resume ALSA audio sink");
}

bool audio_sink_flush(audio_sink* self) {
    NUV_CHECK(self != NULL);
    if (!self->pcm) {
        app_log(LOG_LEVEL_ERROR,
                "Unable to drop buffered PCM audio data from ALSA audio sink: device is not open");
        return false;
    }
    if (self->waits_for_space) {
        // The descriptor of a stopped plug-in (dmix) stays silent, however much room there is.
        check_space_in(self, 0);
    }
    const bool was_paused = snd_pcm_state(self->pcm.get()) == SND_PCM_STATE_PAUSED;
    if (!alsa_ok(snd_pcm_drop(self->pcm.get()),
                 "Unable to drop buffered PCM audio data from ALSA audio sink") ||
        !alsa_audio_sink_ensure_pcm_has_runnable_state(self)) {
        return false;
    }
    return !was_paused || audio_sink_pause(self);
}

bool audio_sink_drain(audio_sink* self) {
    NUV_CHECK(self != NULL);
    if (!self->pcm) {
        app_log(LOG_LEVEL_ERROR,
                "Unable to drain buffered PCM audio data from ALSA audio sink: device is not open");
        return false;
    }
    // libuv made the descriptors non-blocking, and with that a drain would return at once.
    int rc = snd_pcm_nonblock(self->pcm.get(), 0);
    if (rc == 0) {
        rc = drain_despite_signals(self->pcm.get());
    }
    return alsa_ok(rc, "Unable to drain buffered PCM audio data from ALSA audio sink");
}

uint64_t audio_sink_get_buffered_frame_count(audio_sink* self, bool* ok) {
    NUV_CHECK(self != NULL);
    NUV_CHECK(ok != NULL);
    *ok = false;
    if (!self->pcm) {
        app_log(LOG_LEVEL_ERROR,
                "Unable to get buffered frame count from ALSA audio sink: device is not open");
        return 0;
    }
    const auto delay =
        query_with_recovery(self, "get buffered frame count from", [](snd_pcm_t* pcm) {
            snd_pcm_sframes_t frames = 0;
            const int rc = snd_pcm_delay(pcm, &frames);
            // An underrun still unnoticed shows as a delay below zero.
            return rc < 0 ? rc : std::max<snd_pcm_sframes_t>(frames, 0);
        });
    if (!delay) {
        return 0;
    }
    *ok = true;
    return static_cast<uint64_t>(*delay);
}

uint32_t audio_sink_get_volume(audio_sink* self) {
    NUV_CHECK(self != NULL);
    return self->volume_manager ? volume_manager_get_volume(self->volume_manager.get())
                                : kVolumeWithoutControl;
}

void audio_sink_set_volume(audio_sink* self, uint32_t volume) {
    NUV_CHECK(self != NULL);
    if (self->volume_manager) {
        volume_manager_set_volume(self->volume_manager.get(), volume);
    }
}

bool audio_sink_get_mute_state(audio_sink* self) {
    NUV_CHECK(self != NULL);
    return self->volume_manager && volume_manager_get_mute_state(self->volume_manager.get());
}

void audio_sink_set_mute_state(audio_sink* self, bool muted) {
    NUV_CHECK(self != NULL);
    if (self->volume_manager) {
        volume_manager_set_mute_state(self->volume_manager.get(), muted);
    }
}
