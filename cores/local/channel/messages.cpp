#include "local/channel/messages.h"

#include <cjson/cJSON.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <iterator>
#include <memory>
#include <new>
#include <utility>

#include "common/released_by.h"
#include "common/utf8.h"

namespace local_core {

namespace {

using Json = std::unique_ptr<cJSON, nuvio::ReleasedBy<cJSON_Delete>>;

constexpr double kMaxInteger = 9007199254740991;  // what a JSON number holds exactly
constexpr size_t kClosingBytes = 2;               // "]}" of a queue message

constexpr const char* kLoopTexts[] = {"off", "one", "all"};
constexpr const char* kPlaybackTexts[] = {"stopped", "playing", "paused"};

// ---- Reading ----------------------------------------------------------------------------------

// What is missing or wrong, for the answer.
struct Wrong {
    std::string what;
};

const cJSON* member(const cJSON* object, const char* name) {
    return cJSON_GetObjectItemCaseSensitive(object, name);
}

std::optional<uint64_t> integer_of(const cJSON* value) {
    if (!cJSON_IsNumber(value)) {
        return std::nullopt;
    }
    const double number = value->valuedouble;
    if (!(number >= 0 && number <= kMaxInteger) || number != std::floor(number)) {
        return std::nullopt;
    }
    return static_cast<uint64_t>(number);
}

uint64_t required_integer(const cJSON* object, const char* name, double highest = kMaxInteger) {
    const std::optional<uint64_t> number = integer_of(member(object, name));
    if (!number || static_cast<double>(*number) > highest) {
        throw Wrong{std::string(name) + " is not an integer in its range"};
    }
    return *number;
}

bool required_flag(const cJSON* object, const char* name) {
    const cJSON* const value = member(object, name);
    if (!cJSON_IsBool(value)) {
        throw Wrong{std::string(name) + " is not a boolean"};
    }
    return cJSON_IsTrue(value) != 0;
}

std::string text_of(const cJSON* object, const char* name, size_t max_bytes) {
    const char* const value = cJSON_GetStringValue(member(object, name));
    if (member(object, name) != nullptr && value == nullptr) {
        throw Wrong{std::string(name) + " is not a text"};
    }
    std::string text = value == nullptr ? "" : value;
    if (text.size() > max_bytes) {
        throw Wrong{std::string(name) + " is too long"};
    }
    return text;
}

const cJSON* list_of(const cJSON* object, const char* name) {
    const cJSON* const list = member(object, name);
    const int count = cJSON_IsArray(list) ? cJSON_GetArraySize(list) : 0;
    if (count < 1 || count > static_cast<int>(kMaxTracksACommand)) {
        throw Wrong{std::string(name) + " is not a list of 1 to 500"};
    }
    return list;
}

NamedTrack track_of(const cJSON* object) {
    if (!cJSON_IsObject(object)) {
        throw Wrong{"a track is not an object"};
    }
    NamedTrack track{
        text_of(object, "url", kMaxUrlBytes),     text_of(object, "title", kMaxTextBytes),
        text_of(object, "artist", kMaxTextBytes), text_of(object, "album", kMaxTextBytes),
        text_of(object, "cover", kMaxTextBytes),  0};
    if (track.url.empty()) {
        throw Wrong{"a track has no url"};
    }
    if (member(object, "duration_ms") != nullptr) {
        track.duration_ms = required_integer(object, "duration_ms");
    }
    return track;
}

// Each reads one argument of a command.
using ReadArgument = void (*)(const cJSON* message, RemoteCommand& command);

template <const char* name>
void read_number(const cJSON* message, RemoteCommand& command) {
    command.number = required_integer(message, name);
}

template <const char* name>
void read_flag(const cJSON* message, RemoteCommand& command) {
    command.flag = required_flag(message, name);
}

void read_volume(const cJSON* message, RemoteCommand& command) {
    command.number = required_integer(message, "volume", 100);
}

void read_loop(const cJSON* message, RemoteCommand& command) {
    const std::string text = text_of(message, "loop", kMaxTextBytes);
    const auto* const known = std::find(std::begin(kLoopTexts), std::end(kLoopTexts), text);
    if (known == std::end(kLoopTexts)) {
        throw Wrong{"loop is not off, one or all"};
    }
    command.loop_mode = static_cast<nuv_loop_mode>(known - std::begin(kLoopTexts));
}

void read_tracks(const cJSON* message, RemoteCommand& command) {
    const cJSON* track = nullptr;
    cJSON_ArrayForEach(track, list_of(message, "tracks")) {
        command.tracks.push_back(track_of(track));
    }
}

void read_start(const cJSON* message, RemoteCommand& command) {
    if (member(message, "start") != nullptr) {
        command.number = required_integer(message, "start");
    }
    if (command.number >= command.tracks.size()) {
        throw Wrong{"start is not one of the tracks"};
    }
}

void read_items(const cJSON* message, RemoteCommand& command) {
    const cJSON* value = nullptr;
    cJSON_ArrayForEach(value, list_of(message, "items")) {
        const std::optional<uint64_t> item = integer_of(value);
        if (!item) {
            throw Wrong{"items holds something else than items"};
        }
        command.items.push_back(*item);
    }
    std::vector<uint64_t> sorted = command.items;
    std::sort(sorted.begin(), sorted.end());
    if (std::adjacent_find(sorted.begin(), sorted.end()) != sorted.end()) {
        throw Wrong{"items holds one of them twice"};
    }
}

void read_before(const cJSON* message, RemoteCommand& command) {
    const cJSON* const value = member(message, "before");
    if (value != nullptr && !cJSON_IsNull(value)) {
        command.before = required_integer(message, "before");
    }
}

constexpr char kPosition[] = "position_ms";
constexpr char kItem[] = "item";
constexpr char kFirst[] = "first";
constexpr char kMuted[] = "muted";
constexpr char kShuffle[] = "shuffle";

struct CommandRow {
    const char* name;
    RemoteVerb verb;
    ReadArgument arguments[2] = {};  // null: none
};

constexpr CommandRow kCommands[] = {
    {"play", RemoteVerb::play},
    {"pause", RemoteVerb::pause},
    {"stop", RemoteVerb::stop},
    {"next", RemoteVerb::next},
    {"previous", RemoteVerb::previous},
    {"seek", RemoteVerb::seek, {read_number<kPosition>}},
    {"volume", RemoteVerb::volume, {read_volume}},
    {"mute", RemoteVerb::mute, {read_flag<kMuted>}},
    {"shuffle", RemoteVerb::shuffle, {read_flag<kShuffle>}},
    {"loop", RemoteVerb::loop, {read_loop}},
    {"queue_replace", RemoteVerb::queue_replace, {read_tracks, read_start}},
    {"queue_insert", RemoteVerb::queue_insert, {read_tracks, read_before}},
    {"queue_remove", RemoteVerb::queue_remove, {read_items}},
    {"queue_move", RemoteVerb::queue_move, {read_items, read_before}},
    {"queue_jump", RemoteVerb::queue_jump, {read_number<kItem>}},
    {"queue_read", RemoteVerb::queue_read, {read_number<kFirst>}},
    {"leave", RemoteVerb::leave},
};

// "\u0000" would cut a text short; nothing that means well has it.
bool has_nul(std::string_view text) {
    if (text.find('\0') != std::string_view::npos) {
        return true;
    }
    for (size_t i = 0; i + 1 < text.size(); ++i) {
        if (text[i] == '\\' && text.substr(i + 1).starts_with("u0000")) {
            return true;
        }
        i += text[i] == '\\' ? 1 : 0;
    }
    return false;
}

// ---- Writing ----------------------------------------------------------------------------------

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

std::variant<RemoteCommand, Refusal> read_command(std::string_view text) {
    const Json message(has_nul(text) || !nuvio::is_utf8(text)
                           ? nullptr
                           : cJSON_ParseWithLength(text.data(), text.size()));
    if (!cJSON_IsObject(message.get())) {
        return Refusal{"bad_message", "not a JSON object"};
    }
    RemoteCommand command;
    try {
        if (text_of(message.get(), "type", kMaxTextBytes) != "command") {
            throw Wrong{"type is not command"};
        }
        command.id = text_of(message.get(), "id", kMaxCommandIdBytes);
        if (command.id.empty()) {
            throw Wrong{"id is missing"};
        }
        const std::string name = text_of(message.get(), "command", kMaxTextBytes);
        const auto* const row =
            std::find_if(std::begin(kCommands), std::end(kCommands),
                         [&](const CommandRow& known) { return name == known.name; });
        if (row == std::end(kCommands)) {
            return Refusal{"unknown_command", "no such command", command.id};
        }
        command.verb = row->verb;
        for (const ReadArgument read : row->arguments) {
            if (read != nullptr) {
                read(message.get(), command);
            }
        }
    } catch (const Wrong& wrong) {
        return Refusal{"bad_message", wrong.what, command.id};
    }
    return command;
}

std::string write_hello(const HelloMessage& hello) {
    const Json message = message_of("hello");
    cJSON_AddNumberToObject(message.get(), "protocol", 1);
    add_text(message.get(), "session", hello.session);
    cJSON* const device = cJSON_AddObjectToObject(message.get(), "device");
    add_text(device, "uuid", hello.uuid);
    add_text(device, "name", hello.name);
    add_text(device, "manufacturer", hello.manufacturer);
    add_text(device, "model", hello.model);
    add_text(device, "device_type", nuv_device_type_to_string(hello.device_type));
    add_text(device, "quality", nuv_audio_quality_to_string(hello.quality));
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
