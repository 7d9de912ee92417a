#include "media/sink/alsa/volume_manager.h"

#include <algorithm>
#include <cerrno>
#include <utility>

#include "media/sink/alsa/alsa_utilities.h"
#include "media/sink/alsa/bounded_handle.h"
#include "media/sink/alsa/descriptor_poller.h"
#include "utility/check.h"
#include "utility/log_delegate.h"

struct volume_manager {
    uv_loop_t* event_loop;  // borrowed
    volume_manager_delegate delegate;
    descriptor_poller_ptr descriptor_poller;
    bounded_handle<mixer_ptr> mixer;
    snd_mixer_elem_t* volume_element;  // the mixer's; null once it has gone
    long min_volume;                   // raw, as ALSA counts
    long max_volume;
    uint32_t volume;   // last reported, percent
    bool muted;        // last reported
    bool may_differ;   // from what was last reported
    int failed_polls;  // in a row
    bool is_lost;      // the mixer failed for good: not called any longer
};

namespace {

constexpr uint32_t kMaxPercent = 100;
// The channel that is read: front left, or mono. All channels are written.
constexpr auto kReadChannel = static_cast<snd_mixer_selem_channel_id_t>(0);
// An unplugged control device may report an error at every pass of the loop.
constexpr int kMaxFailedPolls = 10;
constexpr char kLost[] = "ALSA mixer has failed; the volume is out of reach for now";

const char* mute_text(bool muted) {
    return muted ? "muted" : "unmuted";
}

// ALSA's raw values have 32 bits, whatever the width of long.
int32_t raw_difference(long a, long b) {
    return static_cast<int32_t>(static_cast<uint32_t>(a) - static_cast<uint32_t>(b));
}

uint32_t percent_from_raw(const volume_manager* self, long raw) {
    const int32_t range = raw_difference(self->max_volume, self->min_volume);
    if (raw == self->min_volume || range == 0) {
        return 0;
    }
    const double part = raw_difference(raw, self->min_volume);
    const double percent = 0.5 + part / range * kMaxPercent;
    return static_cast<uint32_t>(std::clamp(percent, 0.0, static_cast<double>(kMaxPercent)));
}

long raw_from_percent(const volume_manager* self, uint32_t percent) {
    if (percent == 0) {
        return self->min_volume;
    }
    const auto min = static_cast<double>(self->min_volume);
    const auto max = static_cast<double>(self->max_volume);
    return static_cast<long>((max - min) * percent / kMaxPercent + min);
}

// Runs an element operation, or fails as ALSA does for a device that has gone.
template <typename Operation, typename... Arguments>
int on_element(volume_manager* self, Operation operation, Arguments... arguments) {
    return volume_manager_is_lost(self) ? -ENODEV : operation(self->volume_element, arguments...);
}

int volume_manager_on_alsa_volume_element_changed(snd_mixer_elem_t* element, unsigned mask);

// The same for a write, for which a sound server may have to be waited for. A mixer that does not
// return is lost, and closed when it does: its successor is given what was set meanwhile.
template <typename Operation, typename Value>
int write_element(volume_manager* self, Operation operation, Value value) {
    if (volume_manager_is_lost(self)) {
        return -ENODEV;
    }
    snd_mixer_elem_t* element = self->volume_element;
    snd_mixer_elem_set_callback(element, nullptr);  // its end, over there, is nobody's business
    const int rc =
        self->mixer.call([=](const mixer_ptr& /*mixer*/) { return operation(element, value); });
    if (!self->mixer.is_away()) {
        snd_mixer_elem_set_callback(element, volume_manager_on_alsa_volume_element_changed);
        return rc;
    }
    self->descriptor_poller.reset();
    self->mixer.reset();
    self->volume_element = nullptr;
    app_log(LOG_LEVEL_WARNING, kLost);
    return rc;
}

// Not from inside alsa-lib: a listener may write, and lose the mixer by that.
void report_changes(volume_manager* self) {
    if (volume_manager_is_lost(self) || !std::exchange(self->may_differ, false)) {
        return;
    }
    const uint32_t volume = volume_manager_get_volume(self);
    if (volume != self->volume) {
        self->volume = volume;
        self->delegate.volume_changed_callback(self, volume, self->delegate.user_data);
    }
    if (volume_manager_is_lost(self)) {
        return;
    }
    const bool muted = volume_manager_get_mute_state(self);
    if (muted != self->muted) {
        self->muted = muted;
        self->delegate.mute_state_changed_callback(self, muted, self->delegate.user_data);
    }
}

// For what others changed only: the event that a write through this mixer brings ends inside
// alsa-lib.
int volume_manager_on_alsa_volume_element_changed(snd_mixer_elem_t* element, unsigned mask) {
    NUV_CHECK(element != NULL);
    auto* self = static_cast<volume_manager*>(snd_mixer_elem_get_callback_private(element));
    NUV_CHECK(self != NULL);
    NUV_CHECK(element == self->volume_element);
    if (mask == SND_CTL_EVENT_MASK_REMOVE) {
        self->volume_element = nullptr;  // the mixer frees it after this call
    } else if ((mask & SND_CTL_EVENT_MASK_VALUE) != 0) {
        self->may_differ = true;
    }
    return 0;
}

// The server behind the mixer, or the card, has gone.
bool is_final(int error) {
    return error == -EPIPE || error == -ENODEV || error == -EIO;
}

// False on a failure, which is logged.
bool handle_mixer_events(volume_manager* self, pollfd* descriptors, unsigned count) {
    unsigned short revents = 0;
    if (!alsa_ok(
            snd_mixer_poll_descriptors_revents(self->mixer.get(), descriptors, count, &revents),
            "Unable to convert ALSA mixer's poll events to real events")) {
        return false;
    }
    if (revents == 0) {
        return true;
    }
    const int rc = snd_mixer_handle_events(self->mixer.get());
    // Some mixers (PipeWire's) say so once only, and wait for ever in the next call.
    self->is_lost = is_final(rc);
    return alsa_ok(rc, "Unable to handle ALSA mixer events");
}

void volume_manager_on_descriptor_poll_event(descriptor_poller* poller, pollfd* descriptors,
                                             unsigned count, void* user_data) {
    auto* self = static_cast<volume_manager*>(user_data);
    NUV_CHECK(self != NULL);
    NUV_CHECK(descriptors != NULL);
    NUV_CHECK(poller == self->descriptor_poller.get());
    const bool is_handled = handle_mixer_events(self, descriptors, count);
    report_changes(self);
    if (!self->descriptor_poller) {
        return;  // lost by a listener's write
    }
    if (is_handled) {
        self->failed_polls = 0;
    } else if (self->is_lost || ++self->failed_polls == kMaxFailedPolls) {
        app_log(LOG_LEVEL_WARNING, kLost);
        self->is_lost = true;
        descriptor_poller_stop_polling(poller);
        return;
    }
    // Again: an error on a descriptor has ended its watch.
    descriptor_poller_start_polling(poller);
}

bool open_mixer(volume_manager* self, const char* control_device) {
    mixer_ptr opened;
    const auto refusal = open_simple_mixer(opened, control_device);
    if (refusal) {
        log_alsa_error(refusal->error, "%s", refusal->what.c_str());
    }
    self->mixer = bounded_handle(std::move(opened));
    return !refusal;
}

bool take_element(volume_manager* self, const char* name, unsigned index) {
    snd_mixer_elem_t* element = find_element(self->mixer.get(), name, index);
    if (element == nullptr) {
        app_log(LOG_LEVEL_ERROR, "Unable to find ALSA mixer element '%s' on index %d", name,
                static_cast<int>(index));
        return false;
    }
    if (snd_mixer_selem_has_playback_volume(element) != 1) {
        app_log(LOG_LEVEL_ERROR, "ALSA volume element '%s' does not support playback volume", name);
        return false;
    }
    if (snd_mixer_selem_has_playback_switch(element) != 1) {
        app_log(LOG_LEVEL_ERROR, "ALSA volume element '%s' does not support playback mute", name);
        return false;
    }
    if (!alsa_ok(snd_mixer_selem_get_playback_volume_range(element, &self->min_volume,
                                                           &self->max_volume),
                 "Unable to query ALSA volume element's min/max volume")) {
        return false;
    }
    self->volume_element = element;
    snd_mixer_elem_set_callback(element, volume_manager_on_alsa_volume_element_changed);
    snd_mixer_elem_set_callback_private(element, self);
    return true;
}

bool watch_mixer(volume_manager* self) {
    poll_descriptors descriptors = get_poll_descriptors(self->mixer.get());
    if (descriptors.count == 0) {
        return false;
    }
    self->descriptor_poller.reset(
        descriptor_poller_new(self->event_loop, std::move(descriptors.entries), descriptors.count,
                              {self, volume_manager_on_descriptor_poll_event}));
    NUV_CHECK(self->descriptor_poller != NULL);
    descriptor_poller_start_polling(self->descriptor_poller.get());
    return true;
}

}  // namespace

volume_manager* volume_manager_new(uv_loop_t* event_loop, const char* control_device,
                                   const char* element_name, unsigned element_index,
                                   volume_manager_delegate delegate) {
    NUV_CHECK(event_loop != NULL);
    NUV_CHECK(control_device != NULL);
    NUV_CHECK(element_name != NULL);
    NUV_CHECK(delegate.volume_changed_callback != NULL);
    NUV_CHECK(delegate.mute_state_changed_callback != NULL);

    volume_manager_ptr self(new volume_manager{});
    self->event_loop = event_loop;
    self->delegate = delegate;
    if (!open_mixer(self.get(), control_device) ||
        !take_element(self.get(), element_name, element_index) || !watch_mixer(self.get())) {
        return nullptr;
    }
    self->volume = volume_manager_get_volume(self.get());
    self->muted = volume_manager_get_mute_state(self.get());
    return self.release();
}

void volume_manager_free(volume_manager* self) {
    NUV_CHECK(self != NULL);
    if (self->descriptor_poller) {
        descriptor_poller_stop_polling(self->descriptor_poller.get());
        self->descriptor_poller.reset();
    }
    self->mixer.reset();  // reports the element's removal to a manager that is still whole
    delete self;
}

uint32_t volume_manager_get_volume(volume_manager* self) {
    NUV_CHECK(self != NULL);
    long raw = 0;
    return alsa_ok(on_element(self, snd_mixer_selem_get_playback_volume, kReadChannel, &raw),
                   "Unable to get ALSA volume element's playback volume")
               ? percent_from_raw(self, raw)
               : 0;
}

void volume_manager_set_volume(volume_manager* self, uint32_t volume) {
    NUV_CHECK(self != NULL);
    app_log(LOG_LEVEL_TRACE, "Setting volume: %d", static_cast<int>(volume));
    volume = std::min(volume, kMaxPercent);
    if (volume_manager_is_lost(self)) {
        self->volume = volume;
    }
    if (volume == volume_manager_get_volume(self)) {
        return;
    }
    if (alsa_ok(write_element(self, snd_mixer_selem_set_playback_volume_all,
                              raw_from_percent(self, volume)),
                "Unable to set ALSA playback volume to %d", static_cast<int>(volume))) {
        self->may_differ = true;
    } else if (volume_manager_is_lost(self)) {
        self->volume = volume;
    }
}

bool volume_manager_get_mute_state(volume_manager* self) {
    NUV_CHECK(self != NULL);
    int sound_passes = 0;
    return alsa_ok(
               on_element(self, snd_mixer_selem_get_playback_switch, kReadChannel, &sound_passes),
               "Unable to get ALSA volume element's mute state") &&
           sound_passes == 0;
}

void volume_manager_set_mute_state(volume_manager* self, bool muted) {
    NUV_CHECK(self != NULL);
    app_log(LOG_LEVEL_TRACE, "Setting new mute state: %s", mute_text(muted));
    if (volume_manager_is_lost(self)) {
        self->muted = muted;
    }
    if (muted == volume_manager_get_mute_state(self)) {
        return;
    }
    if (alsa_ok(write_element(self, snd_mixer_selem_set_playback_switch_all, muted ? 0 : 1),
                "Unable to set ALSA mute state to '%s'", mute_text(muted))) {
        self->may_differ = true;
    } else if (volume_manager_is_lost(self)) {
        self->muted = muted;
    }
}

bool volume_manager_is_lost(const volume_manager* self) {
    NUV_CHECK(self != NULL);
    return self->volume_element == nullptr || self->is_lost;
}

uint32_t volume_manager_get_reported_volume(const volume_manager* self) {
    NUV_CHECK(self != NULL);
    return self->volume;
}

bool volume_manager_get_reported_mute_state(const volume_manager* self) {
    NUV_CHECK(self != NULL);
    return self->muted;
}
