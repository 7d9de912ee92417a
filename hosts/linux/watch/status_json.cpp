#include "watch/status_json.h"

#include "common/json/json.h"

namespace nuvio::host {

namespace {

// An object under the key, or null in its place where the condition does not hold.
cJSON* add_object_if(bool condition, cJSON* object, const char* key) {
    if (!condition) {
        add(object, key, nullptr);
    }
    return condition ? add_object(object, key) : nullptr;
}

void add_track(cJSON* status, const NowPlayingView& playing) {
    if (!playing.track) {
        add(status, "track", nullptr);
        return;
    }
    cJSON* const track = add_object(status, "track");
    add(track, "title", playing.track->title);
    add(track, "artist", playing.track->artist);
    add(track, "album", playing.track->album);
    add(track, "length_ms", playing.track->length_ms);
    add(track, "position_ms", playing.position_ms);
}

void add_played(cJSON* status, const std::optional<PlayedNote>& played) {
    cJSON* const object = add_object_if(played.has_value(), status, "last_played");
    if (object != nullptr && played) {
        add(object, "title", played->title);
        add(object, "verified", played->verified);
    }
}

void add_format(cJSON* parent, const char* key, const AudioFormat& format) {
    if (cJSON* const object = add_object_if(format.rate.has_value(), parent, key)) {
        add(object, "rate", format.rate);
        add(object, "bits", format.bits);
        add(object, "channels", format.channels);
    }
}

void add_output(cJSON* status, const ServiceState& service) {
    add_format(status, "format", service.stream);
    if (cJSON* const output = add_object_if(service.device.has_value(), status, "output")) {
        add(output, "device", service.device);
        add(output, "path", service.path);
        add_format(output, "granted", service.card);
        add(output, "granted_format", service.card_format);
        add(output, "bit_exact", service.bit_exact);
        add(output, "why", service.bit_exact_why);
        add(output, "buffer_frames", service.buffer_frames);
        add(output, "period_frames", service.period_frames);
    }
}

void add_error(cJSON* status, const ServiceState& service) {
    if (cJSON* const error = add_object_if(service.error.has_value(), status, "last_error")) {
        add(error, "time", service.error_time);
        add(error, "text", service.error);
    }
}

}  // namespace

std::string status_json(const DeviceState& state) {
    const ServiceState& service = state.service;
    const JsonPtr document = new_object();
    cJSON* const status = document.get();
    add(status, "name", state.name);
    add(status, "state", word_of(state.playing.status).key);
    add_track(status, state.playing);
    add_output(status, service);
    add_played(status, state.played);
    add(status, "volume", state.volume);
    add(status, "muted", state.muted);
    add(status, "underruns", service.underruns);
    add_error(status, service);
    cJSON* const sessions = add_object(status, "sessions");
    add(sessions, "taken", service.sessions);
    add(sessions, "active", state.playing.has_session);
    add(status, "uptime_s", int64_t{state.uptime.count()});
    cJSON* const versions = add_object(status, "versions");
    add(versions, "host", state.version);
    add(versions, "service", service.version);
    add(versions, "sdk", service.sdk_version);
    add(versions, "alsa", service.alsa_version);
    return print_json(status);
}

}  // namespace nuvio::host
