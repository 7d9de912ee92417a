#include "bus/mpris_interface.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

#include "bus/append.h"
#include "bus/mpris.h"

namespace nuvio::host {

namespace {

Mpris& self(void* userdata) {
    return *static_cast<Mpris*>(userdata);
}

struct LoopWord {
    const char* text;     // on the bus
    const char* command;  // to the service
};
// In the order of LoopMode.
constexpr std::array<LoopWord, 3> kLoopWords = {{
    {"None", "REPEAT:OFF"},
    {"Track", "REPEAT:ONE"},
    {"Playlist", "REPEAT:ALL"},
}};

// To the service.
constexpr char kResume[] = "RESUME";
constexpr char kPause[] = "PAUSE";
constexpr char kStop[] = "STOP";
constexpr char kNext[] = "NEXT";
constexpr char kPrevious[] = "PREV";

// --- methods ---
//
// A negative result, here and of the properties, is the error that the caller is answered with, and
// no end of anything; with several properties asked for at once the first one that fails.

int do_nothing(sd_bus_message* call, void*, sd_bus_error*) {
    return sd_bus_reply_method_return(call, "");
}

int on_open_uri(sd_bus_message*, void*, sd_bus_error* error) {
    return sd_bus_error_set_const(error, SD_BUS_ERROR_NOT_SUPPORTED,
                                  "What plays is chosen in the controller application");
}

template <const char* command>
int on_command(sd_bus_message* call, void* userdata, sd_bus_error*) {
    const int sent = sd_bus_reply_method_return(call, "");
    const bool taken = self(userdata).controls().command(command);
    if (taken && command == kPrevious) {
        self(userdata).preview_start();
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

#define NUVIO_GETTER(name)                                                          \
    int name(sd_bus*, const char*, const char*, const char*, sd_bus_message* reply, \
             [[maybe_unused]] void* userdata, sd_bus_error*)
#define NUVIO_SETTER(name)                                                          \
    int name(sd_bus*, const char*, const char*, const char*, sd_bus_message* value, \
             void* userdata, [[maybe_unused]] sd_bus_error* error)

template <auto value>
NUVIO_GETTER(get_always) {
    return append(reply, value);
}
NUVIO_GETTER(get_no_list) {
    return sd_bus_message_append(reply, "as", 0);
}

template <auto of_device>
NUVIO_GETTER(get) {
    return append(reply, std::invoke(of_device, self(userdata).device()));
}

std::string status(const DeviceModel& device) {
    return word_of(device.playing().status).text;
}
std::string loop(const DeviceModel& device) {
    return kLoopWords[static_cast<size_t>(device.playing().modes.loop)].text;
}
double rate(const DeviceModel&) {
    return 1;
}
bool shuffle(const DeviceModel& device) {
    return device.playing().modes.shuffle;
}
double volume(const DeviceModel& device) {
    return device.volume().value_or(0) / 100.0;
}
int64_t position_us(const DeviceModel& device) {
    return device.playing().position_ms * kUsPerMs;
}
template <auto action>
bool can(const DeviceModel& device) {
    return device.playing().actions.*action;
}

// Without a track the map is empty; entries without a value are left out.
NUVIO_GETTER(get_metadata) {
    const std::optional<ShownTrack> track = self(userdata).device().playing().track;
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
    self(userdata).controls().command(word->command);
    return 0;
}

NUVIO_SETTER(set_shuffle) {
    int on = 0;
    const int r = sd_bus_message_read(value, "b", &on);
    if (r >= 0) {
        self(userdata).controls().command(on != 0 ? "SHUFFLE:ON" : "SHUFFLE:OFF");
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
        self(userdata).controls().command("PAUSE");
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
    SD_BUS_PROPERTY("CanQuit", "b", get_always<false>, 0, kConst),
    SD_BUS_PROPERTY("CanRaise", "b", get_always<false>, 0, kConst),
    SD_BUS_WRITABLE_PROPERTY("Fullscreen", "b", get_always<false>, set_fullscreen, 0,
                             kOpen | kChanges),
    SD_BUS_PROPERTY("CanSetFullscreen", "b", get_always<false>, 0, kConst),
    SD_BUS_PROPERTY("HasTrackList", "b", get_always<false>, 0, kConst),
    SD_BUS_PROPERTY("Identity", "s", get<&DeviceModel::name>, 0, kChanges),
    SD_BUS_PROPERTY("SupportedUriSchemes", "as", get_no_list, 0, kConst),
    SD_BUS_PROPERTY("SupportedMimeTypes", "as", get_no_list, 0, kConst),
    SD_BUS_VTABLE_END,
};

const sd_bus_vtable kPlayerTable[] = {
    SD_BUS_VTABLE_START(0),
    SD_BUS_METHOD("Next", "", "", on_command<kNext>, kOpen),
    SD_BUS_METHOD("Previous", "", "", on_command<kPrevious>, kOpen),
    SD_BUS_METHOD("Pause", "", "", on_command<kPause>, kOpen),
    SD_BUS_METHOD("PlayPause", "", "", on_play_pause, kOpen),
    SD_BUS_METHOD("Stop", "", "", on_command<kStop>, kOpen),
    SD_BUS_METHOD("Play", "", "", on_command<kResume>, kOpen),
    SD_BUS_METHOD_WITH_NAMES("Seek", "x", SD_BUS_PARAM(Offset), "", , on_seek, kOpen),
    SD_BUS_METHOD_WITH_NAMES("SetPosition", "ox", SD_BUS_PARAM(TrackId) SD_BUS_PARAM(Position), "",
                             , on_set_position, kOpen),
    SD_BUS_METHOD_WITH_NAMES("OpenUri", "s", SD_BUS_PARAM(Uri), "", , on_open_uri, kOpen),
    SD_BUS_SIGNAL_WITH_NAMES("Seeked", "x", SD_BUS_PARAM(Position), 0),
    SD_BUS_PROPERTY("PlaybackStatus", "s", get<status>, 0, kChanges),
    SD_BUS_WRITABLE_PROPERTY("LoopStatus", "s", get<loop>, set_loop, 0, kOpen | kChanges),
    SD_BUS_WRITABLE_PROPERTY("Rate", "d", get<rate>, set_rate, 0, kOpen | kChanges),
    SD_BUS_WRITABLE_PROPERTY("Shuffle", "b", get<shuffle>, set_shuffle, 0, kOpen | kChanges),
    SD_BUS_PROPERTY("Metadata", "a{sv}", get_metadata, 0, kChanges),
    SD_BUS_WRITABLE_PROPERTY("Volume", "d", get<volume>, set_volume, 0, kOpen | kChanges),
    SD_BUS_PROPERTY("Position", "x", get<position_us>, 0, 0),
    SD_BUS_PROPERTY("MinimumRate", "d", get<rate>, 0, kConst),
    SD_BUS_PROPERTY("MaximumRate", "d", get<rate>, 0, kConst),
    SD_BUS_PROPERTY("CanGoNext", "b", get<can<&Actions::next>>, 0, kChanges),
    SD_BUS_PROPERTY("CanGoPrevious", "b", get<can<&Actions::previous>>, 0, kChanges),
    SD_BUS_PROPERTY("CanPlay", "b", get<can<&Actions::control>>, 0, kChanges),
    SD_BUS_PROPERTY("CanPause", "b", get<can<&Actions::control>>, 0, kChanges),
    SD_BUS_PROPERTY("CanSeek", "b", get<can<&Actions::seek>>, 0, kChanges),
    SD_BUS_PROPERTY("CanControl", "b", get_always<true>, 0, 0),
    SD_BUS_VTABLE_END,
};

}  // namespace

std::string track_path(const ShownTrack& track) {
    return "/org/nuvioconnect/track/" + std::to_string(track.number);
}

int attach_mpris(sd_bus* bus, Mpris& player) {
    const int r =
        sd_bus_add_object_vtable(bus, nullptr, kMprisPath, kMprisRoot, kRootTable, &player);
    return r < 0 ? r
                 : sd_bus_add_object_vtable(bus, nullptr, kMprisPath, kMprisPlayer, kPlayerTable,
                                            &player);
}

}  // namespace nuvio::host
