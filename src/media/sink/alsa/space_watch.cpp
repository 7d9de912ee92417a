#include "media/sink/alsa/space_watch.h"

#include <algorithm>
#include <optional>
#include <utility>
#include <vector>

#include "media/sink/alsa/descriptor_poller.h"
#include "utility/check.h"
#include "utility/log_delegate.h"
#include "utility/uv_utilities.h"

struct space_watch {
    alsa_pcm* pcm;  // borrowed
    space_watch_delegate delegate;
    std::vector<pollfd> descriptors;  // those of the poller
    descriptor_poller_ptr poller;
    std::unique_ptr<uv_timer_t, nuvio::ReleasedBy<uv_timer_free>> timer;
    bool waits = false;               // the callback is due
    unsigned failed_queries = 0;      // in a row, while waiting
    unsigned fruitless_wake_ups = 0;  // in a row, while waiting
};

namespace {

constexpr unsigned kMaxFailedQueries = 10;  // in a row, while waiting
constexpr uint64_t kLookMs = 10;            // while the descriptors are of no use
// After a wake-up without room, from the second in a row on: doubled each time up to a part of the
// buffer, which is full then.
constexpr unsigned kMaxDoublings = 6;
constexpr uint64_t kLongestWaitMs = 100;
constexpr uint64_t kPartOfBuffer = 8;

snd_pcm_t* handle_of(space_watch* self) {
    return alsa_pcm_get_handle(self->pcm);
}

// The wake-up that led to a write is still on a plug-in's descriptor after it and would be followed
// at once by another, for the frame or two that have been played meanwhile. A plug-in (dmix) takes
// it back when asked about a readable descriptor. True: there is room all the same, and the wake-up
// for it may have been taken back, too.
bool take_back_wake_up(space_watch* self) {
    for (pollfd& descriptor : self->descriptors) {
        descriptor.revents = POLLIN;
    }
    unsigned short revents = 0;
    snd_pcm_poll_descriptors_revents(handle_of(self), self->descriptors.data(),
                                     static_cast<unsigned>(self->descriptors.size()), &revents);
    return (revents & POLLOUT) != 0;
}

void stop_waiting(space_watch* self) {
    self->waits = false;
    uv_timer_stop(self->timer.get());
    descriptor_poller_stop_polling(self->poller.get());
}

// Room can only come from a device that runs. One that does not, or that cannot tell its room again
// and again, would be polled for ever: there the wait ends too, and the write that follows the
// signal finds and reports the failure.
bool space_may_come(space_watch* self, std::optional<size_t> space) {
    if (space) {
        self->failed_queries = 0;
        return *space == 0;
    }
    return alsa_pcm_get_state(self->pcm) == SND_PCM_STATE_RUNNING &&
           ++self->failed_queries < kMaxFailedQueries;
}

void look_in(space_watch* self, uint64_t delay_ms);

// By timer where nothing can be polled.
void poll_on(space_watch* self) {
    descriptor_poller_start_polling(self->poller.get());
    if (!descriptor_poller_is_polling(self->poller.get())) {
        look_in(self, kLookMs);
    }
}

// True: there is no room yet. False: the callback has been made, and may have freed the watch.
bool still_waits_after_look(space_watch* self) {
    if (space_may_come(self, alsa_audio_sink_get_available_space(self->pcm))) {
        // Again: an error on a descriptor has ended its watch.
        poll_on(self);
        return true;
    }
    stop_waiting(self);
    self->delegate.space_available_callback(self->delegate.user_data);
    return false;
}

void look_in(space_watch* self, uint64_t delay_ms) {
    uv_timer_start(
        self->timer.get(),
        [](uv_timer_t* timer) { still_waits_after_look(static_cast<space_watch*>(timer->data)); },
        delay_ms, 0);
}

// While the descriptors are of no use: polled on, they would make the loop spin.
void look_later(space_watch* self, uint64_t delay_ms) {
    descriptor_poller_stop_polling(self->poller.get());
    look_in(self, delay_ms);
}

void on_pcm_away(void* user_data) {
    auto* self = static_cast<space_watch*>(user_data);
    descriptor_poller_stop_polling(self->poller.get());
    space_watch_look_at_once(self);
}

uint64_t fruitless_wait_ms(const space_watch* self) {
    const unsigned doublings = std::min(self->fruitless_wake_ups, kMaxDoublings);
    const uint64_t longest = alsa_pcm_get_buffer_duration(self->pcm) / kPartOfBuffer;
    return std::min((kLookMs / 2) << (doublings - 1),
                    std::clamp<uint64_t>(longest, 1, kLongestWaitMs));
}

void alsa_audio_sink_on_pcm_descriptor_poll_event(descriptor_poller* poller, pollfd* descriptors,
                                                  unsigned count, void* user_data) {
    auto* self = static_cast<space_watch*>(user_data);
    NUV_CHECK(self != NULL);
    NUV_CHECK(poller == self->poller.get());
    // Plug-ins (dmix, sound servers) take back a wake-up that brought no room only in this call;
    // without it their descriptor stays readable, and the loop would spin until there is room. What
    // it says does not matter, but for an error: that may stay on the descriptor.
    unsigned short revents = 0;
    if (snd_pcm_poll_descriptors_revents(handle_of(self), descriptors, count, &revents) < 0) {
        look_later(self, kLookMs);
        return;
    }
    if (!still_waits_after_look(self)) {
        return;
    }
    // A plug-in (PipeWire's) may leave its descriptor readable for as long as there is no room.
    if (self->fruitless_wake_ups++ > 0) {
        look_later(self, fruitless_wait_ms(self));
    } else if ((revents & POLLERR) != 0) {
        look_later(self, kLookMs);
    }
}

}  // namespace

space_watch* space_watch_new(uv_loop_t* event_loop, alsa_pcm* pcm, space_watch_delegate delegate) {
    NUV_CHECK(event_loop != NULL);
    NUV_CHECK(pcm != NULL);
    NUV_CHECK(delegate.space_available_callback != NULL);
    poll_descriptors descriptors = get_poll_descriptors(alsa_pcm_get_handle(pcm));
    if (descriptors.count == 0) {
        return nullptr;
    }
    space_watch_ptr self(new space_watch{});
    self->pcm = pcm;
    self->delegate = delegate;
    self->descriptors.assign(descriptors.entries.get(),
                             descriptors.entries.get() + descriptors.count);
    self->poller.reset(
        descriptor_poller_new(event_loop, std::move(descriptors.entries), descriptors.count,
                              {self.get(), alsa_audio_sink_on_pcm_descriptor_poll_event}));
    if (!self->poller) {
        app_log(LOG_LEVEL_ERROR, "Unable to poll ALSA PCM's descriptors");
        return nullptr;
    }
    self->timer.reset(uv_timer_new(event_loop, self.get()));
    alsa_pcm_set_away_listener(pcm, {self.get(), on_pcm_away});
    return self.release();
}

void space_watch_free(space_watch* self) {
    if (self != nullptr) {
        alsa_pcm_set_away_listener(self->pcm, {});
    }
    delete self;
}

void space_watch_start(space_watch* self) {
    NUV_CHECK(self != NULL);
    const bool has_room = !self->waits && take_back_wake_up(self);
    self->waits = true;
    self->failed_queries = 0;
    self->fruitless_wake_ups = 0;
    poll_on(self);
    if (has_room) {
        look_in(self, 0);
    }
}

void space_watch_look_at_once(space_watch* self) {
    NUV_CHECK(self != NULL);
    if (self->waits) {
        look_in(self, 0);
    }
}
