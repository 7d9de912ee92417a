#include <algorithm>
#include <memory>
#include <new>
#include <utility>

#include "common/released_by.h"
#include "common/utf8.h"
#include "local/channel/json.h"
#include "local/channel/messages.h"

namespace local_core {

namespace {

constexpr size_t kClosingBytes = 2;  // "]}" of a queue message
constexpr const char* kPlaybackTexts[] = {"stopped", "playing", "paused"};

void add_text(cJSON* object, const char* name, const std::string& text) {
    std::string valid;
    for (std::string_view rest = text; !rest.empty();) {
        const size_t length = nuvio::character_length(rest);
        valid += rest.substr(0, length);
        rest.remove_prefix(std::max<size_t>(length, 1));
    }
    cJSON_AddStringToObject(object, name, valid.c_str());
}

void add_number(cJSON* object, const char* name, uint64_t number) {
    cJSON_AddNumberToObject(object, name, std::min(static_cast<double>(number), kMaxInteger));
}

Json new_object() {
    Json object(cJSON_CreateObject());
    if (!object) {
        throw std::bad_alloc();
    }
    return object;
}

Json message_of(const char* type) {
    Json message = new_object();
    cJSON_AddStringToObject(message.get(), "type", type);
    return message;
}

std::string text_of(const Json& json) {
    const std::unique_ptr<char, nuvio::ReleasedBy<cJSON_free>> text(
        cJSON_PrintUnformatted(json.get()));
    if (!text) {
        throw std::bad_alloc();
    }
    return text.get();
}

}  // namespace

std::string write_hello(const HelloMessage& hello) {
    const Json message = message_of("hello");
    cJSON_AddNumberToObject(message.get(), "protocol", 1);
    add_text(message.get(), "session", hello.session);
    cJSON* const device = cJSON_AddObjectToObject(message.get(), "device");
    add_text(device, "uuid", hello.uuid);
    add_text(device, "name", hello.name);
    add_text(device, "manufacturer", hello.manufacturer);
    add_text(device, "model", hello.model);
    add_text(device, "device_type", hello.device_type);
    add_text(device, "quality", hello.quality);
    add_text(device, "sdk_version", hello.sdk_version);
    cJSON* const limits = cJSON_AddObjectToObject(message.get(), "limits");
    add_number(limits, "message_bytes", kMaxMessageBytes);
    add_number(limits, "commands_per_second", hello.commands_per_second);
    add_number(limits, "command_burst", hello.command_burst);
    add_number(limits, "tracks_per_command", kMaxTracksACommand);
    add_number(limits, "queue_tracks", hello.queue_tracks);
    return text_of(message);
}

std::string write_track(const TrackMessage* track) {
    const Json message = message_of("track");
    if (track == nullptr) {
        cJSON_AddNullToObject(message.get(), "item");
        return text_of(message);
    }
    add_number(message.get(), "item", track->item);
    add_text(message.get(), "title", track->title);
    add_text(message.get(), "artist", track->artist);
    add_text(message.get(), "album", track->album);
    add_text(message.get(), "cover", track->cover);
    add_number(message.get(), "duration_ms", track->duration_ms);
    cJSON_AddBoolToObject(message.get(), "seekable", track->seekable);
    cJSON* const format = cJSON_AddObjectToObject(message.get(), "format");
    add_number(format, "rate_hz", track->format.sample_rate);
    add_number(format, "channels", track->format.channel_count);
    add_number(format, "bits",
               track->format.sample_format == NUV_AUDIO_SAMPLE_FORMAT_16_BIT ? 16 : 24);
    return text_of(message);
}

std::string write_state(const StateMessage& state) {
    const Json message = message_of("state");
    cJSON* const object = message.get();
    cJSON_AddStringToObject(object, "playback", kPlaybackTexts[state.playback]);
    cJSON_AddBoolToObject(object, "active", state.active);
    if (state.item) {
        add_number(object, "item", *state.item);
    } else {
        cJSON_AddNullToObject(object, "item");
    }
    add_number(object, "position_ms", state.position_ms);
    add_number(object, "taken_ms", state.taken_ms);
    if (state.volume) {
        add_number(object, "volume", *state.volume);
    } else {
        cJSON_AddNullToObject(object, "volume");
    }
    cJSON_AddBoolToObject(object, "muted", state.muted);
    cJSON_AddBoolToObject(object, "shuffle", state.shuffle);
    cJSON_AddStringToObject(object, "loop", kLoopTexts[state.loop_mode]);
    cJSON_AddBoolToObject(object, "has_next", state.has_next);
    cJSON_AddBoolToObject(object, "has_previous", state.has_previous);
    return text_of(message);
}

std::string write_done(const std::string& id) {
    const Json message = message_of("answer");
    add_text(message.get(), "id", id);
    cJSON_AddTrueToObject(message.get(), "ok");
    return text_of(message);
}

std::string write_refused(const Refusal& refusal) {
    if (refusal.id.empty()) {
        return write_error("bad_message", std::nullopt, refusal.reason);
    }
    const Json message = message_of("answer");
    add_text(message.get(), "id", refusal.id);
    cJSON_AddFalseToObject(message.get(), "ok");
    add_text(message.get(), "error", refusal.error);
    add_text(message.get(), "reason", refusal.reason);
    return text_of(message);
}

std::string write_error(const std::string& error, std::optional<uint64_t> item,
                        const std::string& reason) {
    const Json message = message_of("error");
    add_text(message.get(), "error", error);
    if (item) {
        add_number(message.get(), "item", *item);
    }
    add_text(message.get(), "reason", reason);
    return text_of(message);
}

std::string write_goodbye(const std::string& reason) {
    const Json message = message_of("goodbye");
    add_text(message.get(), "reason", reason);
    return text_of(message);
}

QueueMessage::QueueMessage(uint64_t revision, size_t length, size_t first) {
    const Json message = message_of("queue");
    add_number(message.get(), "revision", revision);
    add_number(message.get(), "length", length);
    add_number(message.get(), "first", first);
    m_text = text_of(message);
    m_text.back() = ',';
    m_text += "\"items\":[";
}

bool QueueMessage::add(uint64_t item, const NamedTrack& track) {
    const Json entry = new_object();
    add_number(entry.get(), "item", item);
    add_text(entry.get(), "url", track.url);
    add_text(entry.get(), "title", track.title);
    for (const auto& [name, text] :
         {std::pair<const char*, const std::string&>{"artist", track.artist},
          {"album", track.album},
          {"cover", track.cover}}) {
        if (!text.empty()) {
            add_text(entry.get(), name, text);
        }
    }
    if (track.duration_ms != 0) {
        add_number(entry.get(), "duration_ms", track.duration_ms);
    }
    const std::string text = text_of(entry);
    if (m_text.size() + text.size() + 1 + kClosingBytes > kMaxMessageBytes) {
        return false;
    }
    m_text += m_empty ? "" : ",";
    m_text += text;
    m_empty = false;
    return true;
}

std::string QueueMessage::text() const {
    return m_text + "]}";
}

}  // namespace local_core
