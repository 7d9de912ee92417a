#include "media/sink/alsa/alsa_pcm.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <memory>
#include <utility>
#include <vector>

#include "media/sink/alsa/bounded_handle.h"
#include "utility/check.h"
#include "utility/log_delegate.h"
#include "utility/service_record.h"

struct alsa_pcm {
    bounded_handle<pcm_ptr> handle;
    alsa_pcm_away_listener away_listener{};
    std::chrono::steady_clock::time_point prepared_at;  // or set up, which prepares
    unsigned sample_rate = 0;                           // frames a second, as asked for
    unsigned channel_count = 0;
    snd_pcm_format_t format = SND_PCM_FORMAT_UNKNOWN;
};

namespace {

// How often a device may fail before it counts as failed for good.
constexpr int kMaxPrepares = 3;           // in one repair
constexpr int kMaxFruitlessWrites = 5;    // in one write
constexpr int kMaxInterruptedDrains = 5;  // in one drain

constexpr std::chrono::seconds kDrainPatience{1};  // beyond what the device holds at most
constexpr std::chrono::seconds kStaleAfter{1};     // of a PCM that is prepared and not started

// ---- States ---------------------------------------------------------------------------------

enum class readiness {
    ready,          // a write can go on from here
    needs_prepare,  // it can after a prepare
    failed,         // nothing here repairs it: the write fails
};

struct state_rule {
    snd_pcm_state_t state;
    readiness is;
    const char* prepare_failure;  // the log line of a prepare that fails
};

// What is done in each state of a PCM that is open.
constexpr std::array kStateRules = {
    // The set-up is part of opening, so this one has been lost.
    state_rule{SND_PCM_STATE_OPEN, readiness::failed, nullptr},
    // After a drop. Also after a drain, which is followed by nothing but a close.
    state_rule{SND_PCM_STATE_SETUP, readiness::needs_prepare, "Unable to prepare ALSA audio sink"},
    // The first write starts it.
    state_rule{SND_PCM_STATE_PREPARED, readiness::ready, nullptr},
    state_rule{SND_PCM_STATE_RUNNING, readiness::ready, nullptr},
    // It ran dry. What was heard is heard; the next frames follow the gap.
    state_rule{SND_PCM_STATE_XRUN, readiness::needs_prepare,
               "Unable to prepare ALSA audio sink after underrun"},
    // A drain is over before anything else is asked of the PCM.
    state_rule{SND_PCM_STATE_DRAINING, readiness::failed, nullptr},
    // Takes frames until it is full and plays them after the resume.
    state_rule{SND_PCM_STATE_PAUSED, readiness::ready, nullptr},
    // The machine slept. Only a failed call leads to the repair of this one.
    state_rule{SND_PCM_STATE_SUSPENDED, readiness::failed, nullptr},
    // The card is gone, and this PCM with it, even if the card comes back.
    state_rule{SND_PCM_STATE_DISCONNECTED, readiness::failed, nullptr},
};

// States of a later ALSA count as failed.
state_rule rule_of(snd_pcm_state_t state) {
    const auto* rule = std::ranges::find(kStateRules, state, &state_rule::state);
    return rule == kStateRules.end() ? state_rule{state, readiness::failed, nullptr} : *rule;
}

// ---- Calls that wait for a sound server -------------------------------------------------------

// The one way to such a call on a PCM that is open: none may take it away without a word.
template <typename Call>
int call_in_time(alsa_pcm* self, const Call& call,
                 std::chrono::milliseconds patience = kAlsaPatience) {
    const int rc = self->handle.call(call, patience);
    if (rc == -ETIMEDOUT && self->handle.is_away() &&
        self->away_listener.away_callback != nullptr) {
        self->away_listener.away_callback(self->away_listener.user_data);
    }
    return rc;
}

int prepare(alsa_pcm* self) {
    const int rc =
        call_in_time(self, [](const pcm_ptr& pcm) { return snd_pcm_prepare(pcm.get()); });
    self->prepared_at = std::chrono::steady_clock::now();
    return rc;
}

// The start of a sound server's stream, which a write may bring, waits for the server's answer, and
// that call cannot be held to a time: what it reads is the caller's. So a server that may have hung
// since the stream was prepared is asked first.
bool has_stood_long(const alsa_pcm* self, snd_pcm_state_t state) {
    return state == SND_PCM_STATE_PREPARED &&
           std::chrono::steady_clock::now() - self->prepared_at > kStaleAfter;
}

bool is_in_use(alsa_pcm* self) {
    const snd_pcm_state_t state = alsa_pcm_get_state(self);
    return state != SND_PCM_STATE_OPEN && state != SND_PCM_STATE_SETUP &&
           state != SND_PCM_STATE_DISCONNECTED;
}

// ---- Repair ---------------------------------------------------------------------------------

// snd_pcm_recover sleeps for as long as a suspended device is being resumed; the loop must not. A
// device that is not resumed at once is prepared, as one that cannot be.
int recover_without_waiting(snd_pcm_t* pcm, int error) {
    if (error == -ESTRPIPE) {
        return snd_pcm_resume(pcm) == 0 ? 0 : snd_pcm_prepare(pcm);
    }
    return snd_pcm_recover(pcm, error, 1);
}

// Asks the PCM for a count of frames, a second time after a repair. `what` completes the log lines.
template <typename Query>
std::optional<size_t> query_with_recovery(alsa_pcm* self, const char* what, Query query) {
    if (self->handle.is_away()) {
        return std::nullopt;
    }
    snd_pcm_sframes_t frames = query(self->handle.get());
    if (frames >= 0) {
        return static_cast<size_t>(frames);
    }
    app_log(LOG_LEVEL_WARNING, "Unable to %s ALSA audio sink, trying to recover", what);
    if (!alsa_audio_sink_recover_pcm(self, static_cast<int>(frames))) {
        return std::nullopt;
    }
    frames = query(self->handle.get());
    if (frames >= 0) {
        return static_cast<size_t>(frames);
    }
    app_log(LOG_LEVEL_ERROR, "Unable to %s ALSA audio sink even after recovery", what);
    return std::nullopt;
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

// One write, with a repair when it fails. The frames placed; none: it has failed for good.
std::optional<size_t> write_once(alsa_pcm* self, const uint8_t* data, size_t frames,
                                 const char* what) {
    snd_pcm_t* pcm = self->handle.get();
    const bool starts = snd_pcm_state(pcm) == SND_PCM_STATE_PREPARED;
    const snd_pcm_sframes_t space = starts ? snd_pcm_avail_update(pcm) : 0;
    const snd_pcm_sframes_t written = snd_pcm_writei(pcm, data, frames);
    if (written >= 0) {
        return static_cast<size_t>(written);
    }
    app_log(LOG_LEVEL_WARNING, "Unable to write %s ALSA audio sink, trying to recover", what);
    if (!alsa_audio_sink_recover_pcm(self, static_cast<int>(written))) {
        return std::nullopt;
    }
    return starts ? std::min(frames_kept(pcm, space), frames) : 0;
}

// Counts the writes that placed nothing. False, with a log line, at the last one allowed.
bool may_write_again(size_t placed, int& fruitless_writes) {
    if (placed > 0 || ++fruitless_writes < kMaxFruitlessWrites) {
        return true;
    }
    app_log(LOG_LEVEL_ERROR, "ALSA audio sink took nothing in %d writes", kMaxFruitlessWrites);
    return false;
}

// A driver that fails to start with what it was given may keep that to itself; a PCM that does not
// run never has room again.
bool ensure_started(alsa_pcm* self) {
    const auto start = [](const pcm_ptr& pcm) { return snd_pcm_start(pcm.get()); };
    return alsa_pcm_get_state(self) != SND_PCM_STATE_PREPARED ||
           alsa_ok(call_in_time(self, start), "Unable to start ALSA audio sink");
}

int drain_despite_signals(snd_pcm_t* pcm) {
    int rc = -EINTR;
    for (int tries = 0; rc == -EINTR && tries < kMaxInterruptedDrains; ++tries) {
        rc = snd_pcm_drain(pcm);
    }
    return rc;
}

// ---- Opening --------------------------------------------------------------------------------

snd_pcm_format_t nuvio_format_to_alsa_format(nuv_audio_sample_format format) {
    switch (format) {
        case NUV_AUDIO_SAMPLE_FORMAT_16_BIT:
            return SND_PCM_FORMAT_S16_LE;
        case NUV_AUDIO_SAMPLE_FORMAT_24_BIT:
            return SND_PCM_FORMAT_S24_LE;
    }
    return SND_PCM_FORMAT_UNKNOWN;
}

bool set_up(alsa_pcm* self, const pcm_stream& stream) {
    struct outcome {
        std::optional<alsa_refusal> refusal;
        unsigned granted_rate = 0;
    };
    const auto result = std::make_shared<outcome>();  // a late call's as well
    const int rc = call_in_time(self, [stream, result](const pcm_ptr& pcm) {
        result->refusal = set_up_pcm(pcm.get(), stream, result->granted_rate);
        return 0;
    });
    if (rc < 0) {
        return alsa_ok(rc, "Unable to set ALSA PCM's HW params");
    }
    if (result->granted_rate != 0 && result->granted_rate != stream.rate) {
        app_log(LOG_LEVEL_WARNING,
                "Requested ALSA PCM's sample rate to be set to %u, got %u instead", stream.rate,
                result->granted_rate);
    }
    const std::optional<alsa_refusal> refusal = result->refusal;
    if (refusal) {
        log_alsa_error(refusal->error, "%s", refusal->what.c_str());
    }
    self->prepared_at = std::chrono::steady_clock::now();
    return !refusal;
}

}  // namespace

alsa_pcm* alsa_pcm_new(const char* device, const nuv_audio_format* format) {
    NUV_CHECK(device != NULL);
    NUV_CHECK(format != NULL);
    const snd_pcm_format_t alsa_format = nuvio_format_to_alsa_format(format->sample_format);
    if (alsa_format == SND_PCM_FORMAT_UNKNOWN) {
        app_log(LOG_LEVEL_ERROR, "Unable to open ALSA audio sink: unknown sample format %d",
                static_cast<int>(format->sample_format));
        return nullptr;
    }
    alsa_pcm_ptr self(new alsa_pcm);
    pcm_ptr opened;
    if (!alsa_ok(open_playback_pcm(opened, device), "Unable to open ALSA audio sink '%s'",
                 device)) {
        return nullptr;
    }
    self->handle = bounded_handle(std::move(opened));
    if (!set_up(self.get(), {format->sample_rate, format->channel_count, alsa_format})) {
        return nullptr;
    }
    self->sample_rate = format->sample_rate;
    self->channel_count = format->channel_count;
    self->format = alsa_format;
    return self.release();
}

void alsa_pcm_free(alsa_pcm* self) {
    if (self != nullptr && self->handle.get() != nullptr) {
        const bool drops = is_in_use(self);  // or the close would, and wait for it
        self->handle.call([drops](pcm_ptr& pcm) {
            if (drops) {
                snd_pcm_drop(pcm.get());
            }
            pcm.reset();
            return 0;
        });
    }
    delete self;
}

void alsa_pcm_set_away_listener(alsa_pcm* self, alsa_pcm_away_listener listener) {
    NUV_CHECK(self != NULL);
    self->away_listener = listener;
}

snd_pcm_t* alsa_pcm_get_handle(alsa_pcm* self) {
    NUV_CHECK(self != NULL);
    return self->handle.get();
}

snd_pcm_state_t alsa_pcm_get_state(alsa_pcm* self) {
    NUV_CHECK(self != NULL);
    snd_pcm_t* pcm = self->handle.get();
    return pcm == nullptr ? SND_PCM_STATE_DISCONNECTED : snd_pcm_state(pcm);
}

size_t alsa_pcm_get_frame_size(const alsa_pcm* self) {
    NUV_CHECK(self != NULL);
    const auto bits = static_cast<size_t>(snd_pcm_format_physical_width(self->format));
    return bits / 8 * self->channel_count;
}

uint64_t alsa_pcm_get_buffer_duration(alsa_pcm* self) {
    NUV_CHECK(self != NULL);
    snd_pcm_uframes_t buffer = 0;
    snd_pcm_uframes_t period = 0;
    snd_pcm_t* pcm = self->handle.get();
    const int rc = pcm == nullptr ? -ENODEV : snd_pcm_get_params(pcm, &buffer, &period);
    return rc < 0 || self->sample_rate == 0 ? 0 : uint64_t{buffer} * 1000 / self->sample_rate;
}

bool alsa_audio_sink_recover_pcm(alsa_pcm* self, int error) {
    NUV_CHECK(self != NULL);
    if (self->handle.is_away()) {
        return false;
    }
    const int rc = call_in_time(
        self, [error](const pcm_ptr& pcm) { return recover_without_waiting(pcm.get(), error); });
    if (rc == 0) {
        if (error == -EPIPE) {
            service_record_underrun();
        }
        app_log(LOG_LEVEL_DEBUG, "ALSA audio sink recovery successful");
        return true;
    }
    log_alsa_error(error, "Unable to recover ALSA audio sink");
    if (self->handle.is_away()) {
        return false;
    }
    const snd_pcm_state_t state = alsa_pcm_get_state(self);
    app_log(LOG_LEVEL_INFO, "pcm state = %d\n", static_cast<int>(state));
    const state_rule rule = rule_of(state);
    if (state == SND_PCM_STATE_SETUP) {
        return alsa_ok(prepare(self), "%s", rule.prepare_failure);
    }
    return rule.is != readiness::failed;
}

bool alsa_audio_sink_ensure_pcm_has_runnable_state(alsa_pcm* self) {
    NUV_CHECK(self != NULL);
    for (int prepares = 0;; ++prepares) {
        const snd_pcm_state_t state = alsa_pcm_get_state(self);
        const state_rule rule =
            has_stood_long(self, state) ? rule_of(SND_PCM_STATE_SETUP) : rule_of(state);
        if (rule.is != readiness::needs_prepare) {
            return rule.is == readiness::ready;
        }
        if (prepares == kMaxPrepares) {
            app_log(LOG_LEVEL_ERROR, "ALSA audio sink does not become ready after %d prepares",
                    kMaxPrepares);
            return false;
        }
        if (!alsa_ok(prepare(self), "%s", rule.prepare_failure)) {
            return false;
        }
        if (rule.state == SND_PCM_STATE_XRUN) {
            service_record_underrun();
        }
    }
}

std::optional<size_t> alsa_audio_sink_get_available_space(alsa_pcm* self) {
    NUV_CHECK(self != NULL);
    return query_with_recovery(self, "query available space in", snd_pcm_avail);
}

bool alsa_pcm_write(alsa_pcm* self, const void* data, size_t frames, const char* what) {
    NUV_CHECK(self != NULL);
    const auto* position = static_cast<const uint8_t*>(data);
    int fruitless_writes = 0;
    for (size_t left = frames; left > 0;) {
        const auto placed = write_once(self, position, left, what);
        if (!placed || !may_write_again(*placed, fruitless_writes)) {
            return false;
        }
        position += *placed * alsa_pcm_get_frame_size(self);
        left -= *placed;
    }
    return frames == 0 || ensure_started(self);
}

bool alsa_audio_sink_write_silence(alsa_pcm* self, unsigned duration_ms) {
    NUV_CHECK(self != NULL);
    const size_t frames = static_cast<size_t>(self->sample_rate) * duration_ms / 1000;
    const std::vector<uint8_t> silence(frames * alsa_pcm_get_frame_size(self));
    return alsa_pcm_write(self, silence.data(), frames, "silence to");
}

bool alsa_pcm_drop(alsa_pcm* self) {
    NUV_CHECK(self != NULL);
    if (self->handle.is_away()) {
        return false;
    }
    const auto drop = [](const pcm_ptr& pcm) { return snd_pcm_drop(pcm.get()); };
    return alsa_ok(call_in_time(self, drop),
                   "Unable to drop buffered PCM audio data from ALSA audio sink") &&
           alsa_audio_sink_ensure_pcm_has_runnable_state(self);
}

int alsa_pcm_pause(alsa_pcm* self, bool paused) {
    NUV_CHECK(self != NULL);
    return call_in_time(
        self, [paused](const pcm_ptr& pcm) { return snd_pcm_pause(pcm.get(), paused ? 1 : 0); });
}

bool alsa_pcm_drain(alsa_pcm* self) {
    NUV_CHECK(self != NULL);
    if (self->handle.is_away()) {
        return false;
    }
    if (alsa_pcm_get_state(self) == SND_PCM_STATE_XRUN) {
        return true;  // it has run dry already: nothing is left to be heard
    }
    const auto drain = [](const pcm_ptr& pcm) {
        // libuv made the descriptors non-blocking, and with that a drain would return at once.
        const int rc = snd_pcm_nonblock(pcm.get(), 0);
        return rc == 0 ? drain_despite_signals(pcm.get()) : rc;
    };
    const std::chrono::milliseconds longest(alsa_pcm_get_buffer_duration(self));
    return alsa_ok(call_in_time(self, drain, longest + kDrainPatience),
                   "Unable to drain buffered PCM audio data from ALSA audio sink");
}

std::optional<size_t> alsa_pcm_get_delay(alsa_pcm* self) {
    NUV_CHECK(self != NULL);
    return query_with_recovery(self, "get buffered frame count from", [](snd_pcm_t* pcm) {
        snd_pcm_sframes_t frames = 0;
        const int rc = snd_pcm_delay(pcm, &frames);
        // An underrun still unnoticed shows as a delay below zero.
        return rc < 0 ? rc : std::max<snd_pcm_sframes_t>(frames, 0);
    });
}
