#include "bus/mpris.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <cmath>
#include <string_view>
#include <vector>

namespace nuvio::host {

namespace {

constexpr char kPath[] = "/org/mpris/MediaPlayer2";
constexpr char kRootInterface[] = "org.mpris.MediaPlayer2";
constexpr char kPlayerInterface[] = "org.mpris.MediaPlayer2.Player";
constexpr int64_t kUsPerMs = 1000;
// The service reports its position once a second.
constexpr std::chrono::milliseconds kReportDelay{1000};

Mpris& self(void* userdata) {
    return *static_cast<Mpris*>(userdata);
}

std::string track_path(const Track& track) {
    return "/org/nuvioconnect/track/" + std::to_string(track.number);
}

const char* status_text(android::EPlayState status) {
    switch (status) {
        case android::PLAY_STATE_PLAYING:
            return "Playing";
        case android::PLAY_STATE_PAUSED:
            return "Paused";
        case android::PLAY_STATE_STOPPED:
            break;
    }
    return "Stopped";
}

struct LoopWord {
    LoopMode mode;
    const char* text;     // on the bus
    const char* command;  // to the service
};
constexpr std::array<LoopWord, 3> kLoopWords = {{
    {LoopMode::none, "None", "REPEAT:OFF"},
    {LoopMode::track, "Track", "REPEAT:ONE"},
    {LoopMode::playlist, "Playlist", "REPEAT:ALL"},
}};

struct CommandWord {
    std::string_view method;
    const char* command;
};
constexpr std::array<CommandWord, 5> kCommandWords = {{
    {"Play", "RESUME"},
    {"Pause", "PAUSE"},
    {"Stop", "STOP"},
    {"Next", "NEXT"},
    {"Previous", "PREV"},
}};

// --- methods ---

int do_nothing(sd_bus_message* call, void*, sd_bus_error*) {
    return sd_bus_reply_method_return(call, "");
}

int on_open_uri(sd_bus_message*, void*, sd_bus_error* error) {
    return sd_bus_error_set_const(error, SD_BUS_ERROR_NOT_SUPPORTED,
                                  "What plays is chosen in the controller application");
}

int on_command(sd_bus_message* call, void* userdata, sd_bus_error*) {
    const int sent = sd_bus_reply_method_return(call, "");
    const std::string_view method = sd_bus_message_get_member(call);
    for (const CommandWord& word : kCommandWords) {
        if (word.method == method && self(userdata).command(word.command) && method == "Previous") {
            self(userdata).preview_start();
        }
    }
    return sent;
}

int on_play_pause(sd_bus_message* call, void* userdata, sd_bus_error*) {
    const int sent = sd_bus_reply_method_return(call, "");
    self(userdata).play_pause();
    return sent;
}

int on_seek(sd_bus_message* call, void* userdata, sd_bus_error*) {
    int64_t offset_us = 0;
    if (const int r = sd_bus_message_read(call, "x", &offset_us); r < 0) {
        return r;
    }
    const int sent = sd_bus_reply_method_return(call, "");
    self(userdata).seek_by(offset_us);
    return sent;
}

int on_set_position(sd_bus_message* call, void* userdata, sd_bus_error*) {
    const char* track = nullptr;
    int64_t position_us = 0;
    if (const int r = sd_bus_message_read(call, "ox", &track, &position_us); r < 0) {
        return r;
    }
    const int sent = sd_bus_reply_method_return(call, "");
    self(userdata).seek_to(track, position_us);
    return sent;
}

// --- properties ---

#define NUVIO_GETTER(name)                                                             \
    int name(sd_bus*, const char*, const char*, [[maybe_unused]] const char* property, \
             sd_bus_message* reply, [[maybe_unused]] void* userdata, sd_bus_error*)
#define NUVIO_SETTER(name)                                                          \
    int name(sd_bus*, const char*, const char*, const char*, sd_bus_message* value, \
             void* userdata, [[maybe_unused]] sd_bus_error* error)

NUVIO_GETTER(get_true) {
    return sd_bus_message_append(reply, "b", 1);
}
NUVIO_GETTER(get_false) {
    return sd_bus_message_append(reply, "b", 0);
}
NUVIO_GETTER(get_no_list) {
    return sd_bus_message_append(reply, "as", 0);
}
NUVIO_GETTER(get_rate) {
    return sd_bus_message_append(reply, "d", 1.0);
}

NUVIO_GETTER(get_identity) {
    return sd_bus_message_append(reply, "s", self(userdata).identity().c_str());
}

NUVIO_GETTER(get_status) {
    return sd_bus_message_append(reply, "s", status_text(self(userdata).view().status));
}

NUVIO_GETTER(get_loop) {
    const LoopMode mode = self(userdata).view().modes.loop;
    const auto word = std::find_if(kLoopWords.begin(), kLoopWords.end(),
                                   [mode](const LoopWord& one) { return one.mode == mode; });
    return sd_bus_message_append(reply, "s", word->text);
}

NUVIO_GETTER(get_shuffle) {
    return sd_bus_message_append(reply, "b", self(userdata).view().modes.shuffle ? 1 : 0);
}

NUVIO_GETTER(get_volume) {
    return sd_bus_message_append(reply, "d", self(userdata).view().volume / 100.0);
}

NUVIO_GETTER(get_position) {
    return sd_bus_message_append(reply, "x", self(userdata).view().position_ms * kUsPerMs);
}

NUVIO_GETTER(get_action) {
    const Actions actions = self(userdata).view().actions;
    const std::string_view name = property;
    const bool can = name == "CanGoNext"       ? actions.next
                     : name == "CanGoPrevious" ? actions.previous
                     : name == "CanSeek"       ? actions.seek
                                               : actions.control;
    return sd_bus_message_append(reply, "b", can ? 1 : 0);
}

// Without a track the map is empty; entries without a value are left out.
NUVIO_GETTER(get_metadata) {
    const std::optional<Track> track = self(userdata).view().track;
    int r = sd_bus_message_open_container(reply, 'a', "{sv}");
    if (r >= 0 && track) {
        r = sd_bus_message_append(reply, "{sv}{sv}", "mpris:trackid", "o",
                                  track_path(*track).c_str(), "xesam:title", "s",
                                  track->title.c_str());
        if (r >= 0 && !track->artist.empty()) {
            r = sd_bus_message_append(reply, "{sv}", "xesam:artist", "as", 1,
                                      track->artist.c_str());
        }
        if (r >= 0 && !track->album.empty()) {
            r = sd_bus_message_append(reply, "{sv}", "xesam:album", "s", track->album.c_str());
        }
        if (r >= 0 && track->length_ms > 0) {
            r = sd_bus_message_append(reply, "{sv}", "mpris:length", "x",
                                      track->length_ms * kUsPerMs);
        }
        if (r >= 0 && !track->art_url.empty()) {
            r = sd_bus_message_append(reply, "{sv}", "mpris:artUrl", "s", track->art_url.c_str());
        }
    }
    return r < 0 ? r : sd_bus_message_close_container(reply);
}

NUVIO_SETTER(set_loop) {
    const char* text = nullptr;
    if (const int r = sd_bus_message_read(value, "s", &text); r < 0) {
        return r;
    }
    const auto word =
        std::find_if(kLoopWords.begin(), kLoopWords.end(),
                     [text](const LoopWord& one) { return std::string_view(one.text) == text; });
    if (word == kLoopWords.end()) {
        return sd_bus_error_set_const(error, SD_BUS_ERROR_INVALID_ARGS,
                                      "The loop status is None, Track or Playlist");
    }
    self(userdata).command(word->command);
    return 0;
}

NUVIO_SETTER(set_shuffle) {
    int on = 0;
    const int r = sd_bus_message_read(value, "b", &on);
    if (r >= 0) {
        self(userdata).command(on != 0 ? "SHUFFLE:ON" : "SHUFFLE:OFF");
    }
    return r;
}

NUVIO_SETTER(set_volume) {
    double volume = 0;
    if (const int r = sd_bus_message_read(value, "d", &volume); r < 0) {
        return r;
    }
    if (std::isnan(volume)) {
        return sd_bus_error_set_const(error, SD_BUS_ERROR_INVALID_ARGS, "No number");
    }
    self(userdata).set_volume(volume);
    return 0;
}

// There is one rate; asking for none at all means pause.
NUVIO_SETTER(set_rate) {
    double rate = 0;
    const int r = sd_bus_message_read(value, "d", &rate);
    if (r >= 0 && rate == 0.0) {
        self(userdata).command("PAUSE");
    }
    return r;
}

NUVIO_SETTER(set_fullscreen) {
    int ignored = 0;
    (void)userdata;
    return sd_bus_message_read(value, "b", &ignored);
}

constexpr uint64_t kOpen = SD_BUS_VTABLE_UNPRIVILEGED;
constexpr uint64_t kConst = SD_BUS_VTABLE_PROPERTY_CONST;
constexpr uint64_t kChanges = SD_BUS_VTABLE_PROPERTY_EMITS_CHANGE;

const sd_bus_vtable kRootTable[] = {
    SD_BUS_VTABLE_START(0),
    SD_BUS_METHOD("Raise", "", "", do_nothing, kOpen),
    SD_BUS_METHOD("Quit", "", "", do_nothing, kOpen),
    SD_BUS_PROPERTY("CanQuit", "b", get_false, 0, kConst),
    SD_BUS_PROPERTY("CanRaise", "b", get_false, 0, kConst),
    SD_BUS_WRITABLE_PROPERTY("Fullscreen", "b", get_false, set_fullscreen, 0, kOpen | kChanges),
    SD_BUS_PROPERTY("CanSetFullscreen", "b", get_false, 0, kConst),
    SD_BUS_PROPERTY("HasTrackList", "b", get_false, 0, kConst),
    SD_BUS_PROPERTY("Identity", "s", get_identity, 0, kChanges),
    SD_BUS_PROPERTY("SupportedUriSchemes", "as", get_no_list, 0, kConst),
    SD_BUS_PROPERTY("SupportedMimeTypes", "as", get_no_list, 0, kConst),
    SD_BUS_VTABLE_END,
};

const sd_bus_vtable kPlayerTable[] = {
    SD_BUS_VTABLE_START(0),
    SD_BUS_METHOD("Next", "", "", on_command, kOpen),
    SD_BUS_METHOD("Previous", "", "", on_command, kOpen),
    SD_BUS_METHOD("Pause", "", "", on_command, kOpen),
    SD_BUS_METHOD("PlayPause", "", "", on_play_pause, kOpen),
    SD_BUS_METHOD("Stop", "", "", on_command, kOpen),
    SD_BUS_METHOD("Play", "", "", on_command, kOpen),
    SD_BUS_METHOD_WITH_NAMES("Seek", "x", SD_BUS_PARAM(Offset), "", , on_seek, kOpen),
    SD_BUS_METHOD_WITH_NAMES("SetPosition", "ox", SD_BUS_PARAM(TrackId) SD_BUS_PARAM(Position), "",
                             , on_set_position, kOpen),
    SD_BUS_METHOD_WITH_NAMES("OpenUri", "s", SD_BUS_PARAM(Uri), "", , on_open_uri, kOpen),
    SD_BUS_SIGNAL_WITH_NAMES("Seeked", "x", SD_BUS_PARAM(Position), 0),
    SD_BUS_PROPERTY("PlaybackStatus", "s", get_status, 0, kChanges),
    SD_BUS_WRITABLE_PROPERTY("LoopStatus", "s", get_loop, set_loop, 0, kOpen | kChanges),
    SD_BUS_WRITABLE_PROPERTY("Rate", "d", get_rate, set_rate, 0, kOpen | kChanges),
    SD_BUS_WRITABLE_PROPERTY("Shuffle", "b", get_shuffle, set_shuffle, 0, kOpen | kChanges),
    SD_BUS_PROPERTY("Metadata", "a{sv}", get_metadata, 0, kChanges),
    SD_BUS_WRITABLE_PROPERTY("Volume", "d", get_volume, set_volume, 0, kOpen | kChanges),
    SD_BUS_PROPERTY("Position", "x", get_position, 0, 0),
    SD_BUS_PROPERTY("MinimumRate", "d", get_rate, 0, kConst),
    SD_BUS_PROPERTY("MaximumRate", "d", get_rate, 0, kConst),
    SD_BUS_PROPERTY("CanGoNext", "b", get_action, 0, kChanges),
    SD_BUS_PROPERTY("CanGoPrevious", "b", get_action, 0, kChanges),
    SD_BUS_PROPERTY("CanPlay", "b", get_action, 0, kChanges),
    SD_BUS_PROPERTY("CanPause", "b", get_action, 0, kChanges),
    SD_BUS_PROPERTY("CanSeek", "b", get_action, 0, kChanges),
    SD_BUS_PROPERTY("CanControl", "b", get_true, 0, 0),
    SD_BUS_VTABLE_END,
};

struct ChangedProperty {
    uint32_t change;
    const char* name;
};
constexpr std::array<ChangedProperty, 10> kChangedProperties = {{
    {kPlayerStatus, "PlaybackStatus"},
    {kPlayerTrack, "Metadata"},
    {kPlayerModes, "Shuffle"},
    {kPlayerModes, "LoopStatus"},
    {kPlayerVolume, "Volume"},
    {kPlayerActions, "CanGoNext"},
    {kPlayerActions, "CanGoPrevious"},
    {kPlayerActions, "CanPlay"},
    {kPlayerActions, "CanPause"},
    {kPlayerActions, "CanSeek"},
}};

}  // namespace

int Mpris::attach(sd_bus* bus) {
    const int r = sd_bus_add_object_vtable(bus, nullptr, kPath, kRootInterface, kRootTable, this);
    return r < 0 ? r
                 : sd_bus_add_object_vtable(bus, nullptr, kPath, kPlayerInterface, kPlayerTable,
                                            this);
}

void Mpris::publish(sd_bus* bus, uint32_t changes) {
    if ((changes & kPlayerStatus) != 0) {
        m_expected.reset();
    }
    if ((changes & kPlayerTrack) != 0) {
        m_seek_counts_until = {};
    }
    if (bus == nullptr) {
        return;
    }
    std::vector<char*> names;
    for (const ChangedProperty& property : kChangedProperties) {
        if ((changes & property.change) != 0) {
            // The library takes an array of char* and leaves the texts alone.
            names.push_back(const_cast<char*>(property.name));
        }
    }
    if (!names.empty()) {
        names.push_back(nullptr);
        sd_bus_emit_properties_changed_strv(bus, kPath, kPlayerInterface, names.data());
    }
    if ((changes & kPlayerSeeked) != 0) {
        sd_bus_emit_signal(bus, kPath, kPlayerInterface, "Seeked", "x",
                           view().position_ms * kUsPerMs);
    }
}

void Mpris::publish_name(sd_bus* bus) {
    if (bus != nullptr) {
        sd_bus_emit_properties_changed(bus, kPath, kRootInterface, "Identity", nullptr);
    }
}

bool Mpris::command(const char* word) {
    return m_controls.command(word);
}

// Whatever is gone back to begins at its start.
void Mpris::preview_start() {
    m_controls.player().preview_seek(0);
}

// Two presses in quick succession undo each other, although the service has not reported yet.
void Mpris::play_pause() {
    const auto now = Player::Clock::now();
    if (now >= m_expected_until) {
        m_expected.reset();  // the service has refused
    }
    const bool playing = m_expected.value_or(view().status) == android::PLAY_STATE_PLAYING;
    if (m_controls.command(playing ? "PAUSE" : "RESUME")) {
        m_expected = playing ? android::PLAY_STATE_PAUSED : android::PLAY_STATE_PLAYING;
        m_expected_until = now + kReportDelay;
    }
}

void Mpris::seek(int64_t position_ms) {
    m_controls.seek(position_ms);
    m_seek_target_ms = position_ms;
    m_seek_counts_until = Player::Clock::now() + kReportDelay;
}

// Past the end means the next track. Steps in quick succession add up, although the service has not
// reported the first one yet.
void Mpris::seek_by(int64_t offset_us) {
    const PlayerView now = view();
    if (!now.actions.seek) {
        return;
    }
    const bool stepping = Player::Clock::now() < m_seek_counts_until;
    const int64_t from = stepping ? m_seek_target_ms : now.position_ms;
    // Both far from overflow: a position a seek can carry, and a 64-bit count of microseconds.
    const int64_t target =
        std::clamp<int64_t>(from + offset_us / kUsPerMs, 0, Controls::kMaxSeekMs);
    const int64_t length = now.track ? now.track->length_ms : 0;
    if (length > 0 && target > length) {
        command("NEXT");
    } else {
        seek(target);
    }
}

// A request for a track that has ended meanwhile, or for a place outside of it, is ignored.
void Mpris::seek_to(const char* track, int64_t position_us) {
    const PlayerView now = view();
    if (!now.actions.seek || !now.track || track_path(*now.track) != track || position_us < 0 ||
        (now.track->length_ms > 0 && position_us > now.track->length_ms * kUsPerMs)) {
        return;
    }
    seek(position_us / kUsPerMs);
}

void Mpris::set_volume(double volume) {
    m_controls.set_volume(static_cast<int>(std::lround(std::clamp(volume, 0.0, 1.0) * 100.0)));
}

}  // namespace nuvio::host
