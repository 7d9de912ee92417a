// The methods and properties of org.mpris.MediaPlayer2, and what each asks of Mpris. On the
// dispatcher's thread.
#pragma once

#include <systemd/sd-bus.h>

#include <cstdint>
#include <string>

#include "device/now_playing.h"

namespace nuvio::host {

class Mpris;

inline constexpr char kMprisPath[] = "/org/mpris/MediaPlayer2";
inline constexpr char kMprisRoot[] = "org.mpris.MediaPlayer2";
inline constexpr char kMprisPlayer[] = "org.mpris.MediaPlayer2.Player";
inline constexpr int64_t kUsPerMs = 1000;

// What the track is called on the bus.
std::string track_path(const ShownTrack& track);

// Puts the object on the connection, for the connection's life. Negative errno on failure.
int attach_mpris(sd_bus* bus, Mpris& player);

}  // namespace nuvio::host
