// There is no clock for playback: the position is what the sink has taken of the track, less what
// ALSA still holds of it. A hand-over lets ALSA hold frames of the next track as well; the position
// of the ending one is too small by those until it ends.
#include <optional>

#include "bridge/host_hooks.h"
#include "media/audio_renderer_private.h"
#include "utility/check.h"
#include "utility/log_delegate.h"

int32_t last_reported_position_ms = -1;

namespace {

// The SDK chooses the formats, and nothing has refused one with zeros in it before it gets here.
uint64_t quotient_or_zero(uint64_t dividend, uint64_t divisor) {
    return divisor == 0 ? 0 : dividend / divisor;
}

uint64_t frames_to_ms(uint64_t frames, const nuv_audio_format& format) {
    return quotient_or_zero(frames * 1000, format.sample_rate);
}

uint64_t consumed_ms(const audio_source* source) {
    const nuv_audio_format& format = *audio_source_get_format(source);
    const uint64_t bytes_per_frame =
        static_cast<uint64_t>(nuv_audio_sample_format_size(format.sample_format)) *
        format.channel_count;
    const uint64_t frames =
        quotient_or_zero(audio_source_get_bytes_consumed(source), bytes_per_frame);
    return frames_to_ms(frames, format);
}

uint64_t buffered_ms(audio_renderer* self, const audio_source* source, bool* ok) {
    const uint64_t frames = audio_sink_get_buffered_frame_count(self->sink.get(), ok);
    return frames_to_ms(frames, *audio_source_get_format(source));
}

// None when ALSA holds more than the track has delivered. *ok is false when ALSA's share is not
// known and counts as none.
std::optional<uint64_t> position_ms(audio_renderer* self, const audio_source* source, bool* ok) {
    const uint64_t consumed = consumed_ms(source);
    const uint64_t buffered = buffered_ms(self, source, ok);
    return consumed < buffered ? std::nullopt : std::optional(consumed - buffered);
}

const audio_source* active_source_for_position(const audio_renderer* self) {
    const audio_source* active = active_source_of(self);
    if (active == nullptr) {
        app_log(LOG_LEVEL_DEBUG, "No active source, returning playback position 0");
    }
    return active;
}

}  // namespace

uint64_t audio_renderer_get_buffered_duration(audio_renderer* self) {
    NUV_CHECK(self != NULL);
    const audio_source* active = active_source_of(self);
    if (active == nullptr) {
        return 0;
    }
    bool ok = false;
    const uint64_t buffered = buffered_ms(self, active, &ok);
    return ok ? buffered : 0;
}

uint64_t audio_renderer_calculate_playback_position(audio_renderer* self) {
    NUV_CHECK(self != NULL);
    const audio_source* active = active_source_for_position(self);
    if (active == nullptr) {
        return 0;
    }
    bool buffered_is_known = false;
    const std::optional<uint64_t> position = position_ms(self, active, &buffered_is_known);
    if (!position) {
        return 0;
    }
    host_report_playback_position(*position);
    return *position;
}

void updateCurrentPlaybackPosition(audio_renderer* self) {
    NUV_CHECK(self != NULL);
    if (!audio_sink_is_open(self->sink.get())) {
        app_log(LOG_LEVEL_DEBUG, "Audio sink is not open, returning playback position 0");
        return;
    }
    const audio_source* active = active_source_for_position(self);
    if (active == nullptr) {
        return;
    }
    bool buffered_is_known = false;
    const std::optional<uint64_t> position = position_ms(self, active, &buffered_is_known);
    if (!buffered_is_known || !position) {
        return;
    }
    if (*position / 1000 == static_cast<uint64_t>(last_reported_position_ms / 1000)) {
        return;
    }
    last_reported_position_ms = static_cast<int32_t>(*position);
    host_report_playback_position(*position);
}
