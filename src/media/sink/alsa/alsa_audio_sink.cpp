#include "media/sink/alsa/alsa_audio_sink.h"

#include <algorithm>
#include <cerrno>
#include <optional>
#include <string>

#include "media/sink/alsa/alsa_pcm.h"
#include "media/sink/alsa/output_quality.h"
#include "media/sink/alsa/space_watch.h"
#include "media/sink/alsa/volume_control.h"
#include "utility/check.h"
#include "utility/log_delegate.h"
#include "utility/service_record.h"
#include "utility/uv_utilities.h"

struct audio_sink {
    uv_loop_t* event_loop = nullptr;  // borrowed
    std::string output_device;
    volume_control control{};
    volume_manager_ptr volume_manager;  // null: no volume control
    uint64_t next_renewal = 0;          // loop time, ms; of a lost one; 0: none is due
    // Tells the listener of a volume control that was found late, from the loop.
    std::unique_ptr<uv_timer_t, nuvio::ReleasedBy<uv_timer_free>> volume_told;

    void* listener = nullptr;
    audio_sink_space_available_callback space_available_callback = nullptr;
    audio_sink_volume_changed_callback volume_changed_callback = nullptr;
    audio_sink_mute_state_changed_callback mute_state_changed_callback = nullptr;

    // These are set exactly while the sink is open. The watch goes before the PCM.
    alsa_pcm_ptr pcm;
    space_watch_ptr space;
};

namespace {

constexpr unsigned kPauseSilenceMs = 10;
constexpr uint32_t kVolumeWithoutControl = 50;
constexpr uint64_t kRenewalPauseMs = 5000;

void on_space_available(void* user_data) {
    auto* self = static_cast<audio_sink*>(user_data);
    if (self->space_available_callback != nullptr) {
        self->space_available_callback(self, self->listener);
    }
}

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

void tell_volume(uv_timer_t* timer) {
    auto* self = static_cast<audio_sink*>(timer->data);
    volume_manager* manager = self->volume_manager.get();
    if (volume_manager_is_lost(manager)) {
        return;
    }
    alsa_audio_sink_on_volume_manager_volume_changed(manager, audio_sink_get_volume(self), self);
    alsa_audio_sink_on_volume_manager_mute_state_changed(manager, audio_sink_get_mute_state(self),
                                                         self);
}

// A mixer that failed, perhaps only because its server was slow, is looked for again some time
// later, when it is needed.
void renew_lost_control(audio_sink* self) {
    if (!self->volume_manager || !volume_manager_is_lost(self->volume_manager.get())) {
        self->next_renewal = 0;
        return;
    }
    const uint64_t now = uv_now(self->event_loop);
    if (self->next_renewal == 0) {
        self->next_renewal = now + kRenewalPauseMs;
    } else if (now >= self->next_renewal) {
        self->next_renewal = 0;
        renew_volume_manager(self->volume_manager, self->control);
    }
}

// Opens the device once to learn what it can do. One that does not open may do so later.
bool can_ever_play(const std::string& device, const output_settings& settings, int maximum_rate) {
    pcm_ptr probe;
    const int rc = open_playback_pcm(probe, device.c_str());
    return !alsa_ok(rc, "Unable to open ALSA audio device '%s'", device.c_str()) ||
           probe_quality(probe.get(), device.c_str(), settings, maximum_rate).has_value();
}

// For those who look after the device. A few microseconds; plug-ins are not asked.
void note_opened(const std::string& device, const nuv_audio_format& format, snd_pcm_t* pcm) {
    snd_pcm_uframes_t buffer = 0;
    snd_pcm_uframes_t period = 0;
    snd_pcm_get_params(pcm, &buffer, &period);
    const unsigned bits = format.sample_format == NUV_AUDIO_SAMPLE_FORMAT_16_BIT ? 16 : 24;
    service_record_output_opened({device, format.sample_rate, bits, format.channel_count, buffer,
                                  period, describe_pcm(pcm)});
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
    self->control = {event_loop,
                     volume_control_device,
                     volume_control_element,
                     {self.get(), alsa_audio_sink_on_volume_manager_volume_changed,
                      alsa_audio_sink_on_volume_manager_mute_state_changed}};
    self->volume_told.reset(uv_timer_new(event_loop, self.get()));
    self->volume_manager = new_volume_manager(self->control);
    if (!self->volume_manager) {
        app_log(LOG_LEVEL_WARNING,
                "Volume manager initialization failed; continuing without system volume control");
    }
    return can_ever_play(self->output_device, settings, maximum_rate) ? self.release() : nullptr;
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
    return quality_from_settings(settings, parse_maximum_rate(settings))
        .value_or(NUV_AUDIO_QUALITY_CD);
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
    self->pcm.reset(alsa_pcm_new(self->output_device.c_str(), format));
    if (self->pcm) {
        self->space.reset(
            space_watch_new(self->event_loop, self->pcm.get(), {self, on_space_available}));
    }
    if (!self->space) {
        audio_sink_close(self);
        return false;
    }
    if (renew_volume_manager(self->volume_manager, self->control) == renewal::first) {
        uv_timer_start(self->volume_told.get(), tell_volume, 0, 0);
    }
    note_opened(self->output_device, *format, alsa_pcm_get_handle(self->pcm.get()));
    return true;
}

void audio_sink_close(audio_sink* self) {
    NUV_CHECK(self != NULL);
    self->space.reset();
    self->pcm.reset();
    service_record_output_closed();
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
    if (!alsa_audio_sink_ensure_pcm_has_runnable_state(self->pcm.get())) {
        return 0;
    }
    const auto room = alsa_audio_sink_get_available_space(self->pcm.get());
    if (!room) {
        return 0;
    }
    const size_t frame_size = alsa_pcm_get_frame_size(self->pcm.get());
    const size_t frames = std::min(size / frame_size, *room);
    if (!alsa_pcm_write(self->pcm.get(), data, frames, "data to")) {
        return 0;
    }
    const size_t written = frames * frame_size;
    if (written < size) {
        space_watch_start(self->space.get());
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
    if (!alsa_audio_sink_ensure_pcm_has_runnable_state(self->pcm.get())) {
        return false;
    }
    // ALSA pauses only what runs.
    if (alsa_pcm_get_state(self->pcm.get()) == SND_PCM_STATE_PREPARED &&
        !alsa_audio_sink_write_silence(self->pcm.get(), kPauseSilenceMs)) {
        return false;
    }
    return alsa_ok(alsa_pcm_pause(self->pcm.get(), true), "Unable to pause ALSA audio sink");
}

bool audio_sink_resume(audio_sink* self) {
    NUV_CHECK(self != NULL);
    if (!self->pcm) {
        app_log(LOG_LEVEL_ERROR, "Unable to resume ALSA audio sink: device is not open");
        return false;
    }
    return alsa_ok(alsa_pcm_pause(self->pcm.get(), false), "Unable to resume ALSA audio sink");
}

bool audio_sink_flush(audio_sink* self) {
    NUV_CHECK(self != NULL);
    if (!self->pcm) {
        app_log(LOG_LEVEL_ERROR,
                "Unable to drop buffered PCM audio data from ALSA audio sink: device is not open");
        return false;
    }
    space_watch_look_at_once(self->space.get());
    const bool was_paused = alsa_pcm_get_state(self->pcm.get()) == SND_PCM_STATE_PAUSED;
    return alsa_pcm_drop(self->pcm.get()) && (!was_paused || audio_sink_pause(self));
}

bool audio_sink_drain(audio_sink* self) {
    NUV_CHECK(self != NULL);
    if (!self->pcm) {
        app_log(LOG_LEVEL_ERROR,
                "Unable to drain buffered PCM audio data from ALSA audio sink: device is not open");
        return false;
    }
    return alsa_pcm_drain(self->pcm.get());
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
    const auto delay = alsa_pcm_get_delay(self->pcm.get());
    if (!delay) {
        return 0;
    }
    *ok = true;
    return *delay;
}

uint32_t audio_sink_get_volume(audio_sink* self) {
    NUV_CHECK(self != NULL);
    return self->volume_manager ? volume_manager_get_volume(self->volume_manager.get())
                                : kVolumeWithoutControl;
}

void audio_sink_set_volume(audio_sink* self, uint32_t volume) {
    NUV_CHECK(self != NULL);
    renew_lost_control(self);
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
    renew_lost_control(self);
    if (self->volume_manager) {
        volume_manager_set_mute_state(self->volume_manager.get(), muted);
    }
}
