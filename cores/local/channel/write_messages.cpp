#include <utility>

#include "common/json/json.h"
#include "local/channel/loop_texts.h"
#include "local/channel/messages.h"

namespace local_core {

namespace {

using nuvio::add;
using nuvio::add_object;
using nuvio::JsonPtr;
using nuvio::new_object;
using nuvio::print_json;

constexpr size_t kClosingBytes = 2;  // "]}" of a queue message
constexpr const char* kPlaybackTexts[] = {"stopped", "playing", "paused"};

JsonPtr message_of(const char* type) {
    JsonPtr message = new_object();
    add(message.get(), "type", type);
    return message;
}

std::string text_of(const JsonPtr& message) {
    return print_json(message.get());
}

}  // namespace

std::string write_hello(const HelloMessage& hello) {
    const JsonPtr message = message_of("hello");
    add(message.get(), "protocol", 1);
    add(message.get(), "session", hello.session);
    cJSON* const device = add_object(message.get(), "device");
    add(device, "uuid", hello.uuid);
    add(device, "name", hello.name);
    add(device, "manufacturer", hello.manufacturer);
    add(device, "model", hello.model);
    add(device, "device_type", hello.device_type);
    add(device, "quality", hello.quality);
    add(device, "sdk_version", hello.sdk_version);
    cJSON* const limits = add_object(message.get(), "limits");
    add(limits, "message_bytes", kMaxMessageBytes);
    add(limits, "commands_per_second", hello.commands_per_second);
    add(limits, "command_burst", hello.command_burst);
    add(limits, "tracks_per_command", kMaxTracksACommand);
    add(limits, "queue_tracks", hello.queue_tracks);
    return text_of(message);
}

std::string write_track(const TrackMessage* track) {
    const JsonPtr message = message_of("track");
    if (track == nullptr) {
        add(message.get(), "item", nullptr);
        return text_of(message);
    }
    add(message.get(), "item", track->item);
    add(message.get(), "title", track->title);
    add(message.get(), "artist", track->artist);
    add(message.get(), "album", track->album);
    add(message.get(), "cover", track->cover);
    add(message.get(), "duration_ms", track->duration_ms);
    add(message.get(), "seekable", track->seekable);
    cJSON* const format = add_object(message.get(), "format");
    add(format, "rate_hz", track->format.sample_rate);
    add(format, "channels", track->format.channel_count);
    add(format, "bits", track->format.sample_format == NUV_AUDIO_SAMPLE_FORMAT_16_BIT ? 16 : 24);
    add(message.get(), "bit_exact", track->converted.empty());
    if (!track->converted.empty()) {
        add(message.get(), "why", track->converted);
    }
    return text_of(message);
}

std::string write_played(uint64_t item, const std::string& verified) {
    const JsonPtr message = message_of("played");
    add(message.get(), "item", item);
    add(message.get(), "verified", verified);
    return text_of(message);
}

std::string write_state(const PlayerView& view, const PlaybackSettings& settings,
                        uint64_t position_ms, uint64_t taken_ms) {
    const JsonPtr message = message_of("state");
    cJSON* const object = message.get();
    add(object, "playback", kPlaybackTexts[view.state]);
    add(object, "active", view.active);
    add(object, "item", view.track);
    add(object, "position_ms", position_ms);
    add(object, "taken_ms", taken_ms);
    add(object, "seeks", view.seek_count);
    add(object, "volume", settings.volume);
    add(object, "muted", settings.muted.value_or(false));
    add(object, "shuffle", settings.shuffle);
    add(object, "loop", kLoopTexts[settings.loop_mode]);
    add(object, "has_next", view.has_next);
    add(object, "has_previous", view.has_previous);
    return text_of(message);
}

std::string write_done(const std::string& id) {
    const JsonPtr message = message_of("answer");
    add(message.get(), "id", id);
    add(message.get(), "ok", true);
    return text_of(message);
}

std::string write_refused(const Refusal& refusal) {
    if (refusal.id.empty()) {
        return write_error("bad_message", std::nullopt, refusal.reason);
    }
    const JsonPtr message = message_of("answer");
    add(message.get(), "id", refusal.id);
    add(message.get(), "ok", false);
    add(message.get(), "error", refusal.error);
    add(message.get(), "reason", refusal.reason);
    return text_of(message);
}

std::string write_error(const std::string& error, std::optional<uint64_t> item,
                        const std::string& reason) {
    const JsonPtr message = message_of("error");
    add(message.get(), "error", error);
    if (item) {
        add(message.get(), "item", *item);
    }
    add(message.get(), "reason", reason);
    return text_of(message);
}

std::string write_goodbye(const std::string& reason) {
    const JsonPtr message = message_of("goodbye");
    add(message.get(), "reason", reason);
    return text_of(message);
}

QueueMessage::QueueMessage(uint64_t revision, size_t length, size_t first) {
    const JsonPtr message = message_of("queue");
    nuvio::add(message.get(), "revision", revision);
    nuvio::add(message.get(), "length", length);
    nuvio::add(message.get(), "first", first);
    m_text = text_of(message);
    m_text.back() = ',';
    m_text += "\"items\":[";
}

bool QueueMessage::add(uint64_t item, const NamedTrack& track) {
    const JsonPtr entry = new_object();
    nuvio::add(entry.get(), "item", item);
    nuvio::add(entry.get(), "url", track.url);
    nuvio::add(entry.get(), "title", track.title);
    for (const auto& [name, text] :
         {std::pair<const char*, const std::string&>{"artist", track.artist},
          {"album", track.album},
          {"cover", track.cover}}) {
        if (!text.empty()) {
            nuvio::add(entry.get(), name, text);
        }
    }
    if (track.duration_ms != 0) {
        nuvio::add(entry.get(), "duration_ms", track.duration_ms);
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
