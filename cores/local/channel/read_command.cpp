#include <algorithm>
#include <iterator>
#include <utility>

#include "common/json/json.h"
#include "local/channel/loop_texts.h"
#include "local/channel/messages.h"

namespace local_core {

namespace {

using nuvio::member;

// What is missing or wrong, for the answer.
struct Wrong {
    std::string what;
};

std::optional<uint64_t> integer_of(const cJSON* value) {
    const std::optional<int64_t> number = nuvio::number_of(value);
    return number && *number >= 0 ? std::optional(static_cast<uint64_t>(*number)) : std::nullopt;
}

uint64_t required_integer(const cJSON* object, const char* name,
                          uint64_t highest = nuvio::kMaxJsonNumber) {
    const std::optional<uint64_t> number = integer_of(member(object, name));
    if (!number || *number > highest) {
        throw Wrong{std::string(name) + " is not an integer in its range"};
    }
    return *number;
}

bool required_flag(const cJSON* object, const char* name) {
    const std::optional<bool> flag = nuvio::bool_member(object, name);
    if (!flag) {
        throw Wrong{std::string(name) + " is not a boolean"};
    }
    return *flag;
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
        command.start = required_integer(message, "start");
    }
    if (command.start.value_or(0) >= command.tracks.size()) {
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
    Verb verb;
    ReadArgument arguments[2] = {};  // null: none
};

constexpr CommandRow kCommands[] = {
    {"play", Verb::resume},
    {"pause", Verb::pause},
    {"stop", Verb::stop},
    {"next", Verb::next},
    {"previous", Verb::previous},
    {"seek", Verb::seek, {read_number<kPosition>}},
    {"volume", Verb::volume, {read_volume}},
    {"mute", Verb::mute, {read_flag<kMuted>}},
    {"shuffle", Verb::shuffle, {read_flag<kShuffle>}},
    {"loop", Verb::loop, {read_loop}},
    {"queue_replace", Verb::queue_replace, {read_tracks, read_start}},
    {"queue_insert", Verb::queue_insert, {read_tracks, read_before}},
    {"queue_remove", Verb::queue_remove, {read_items}},
    {"queue_move", Verb::queue_move, {read_items, read_before}},
    {"queue_jump", Verb::queue_jump, {read_number<kItem>}},
    {"queue_read", Verb::queue_read, {read_number<kFirst>}},
    {"leave", Verb::deactivate},
};

}  // namespace

std::variant<RemoteCommand, Refusal> read_command(std::string_view text) {
    const nuvio::JsonPtr message = nuvio::parse_json(text);
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

}  // namespace local_core
