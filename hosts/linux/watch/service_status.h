// What a service manager shows of the device: the state, and what plays.
#pragma once

#include <string>

#include "device/now_playing.h"

namespace nuvio::host {

// One line of plain text, e.g. "Playing: Title - Artist". What a title brings along ends no line:
// a line of its own would be a message of its own to the manager.
std::string status_text(const NowPlayingView& view);

// Tells the manager; nothing where there is none. The dispatcher's thread: the manager may be slow.
void report_status(const NowPlayingView& view);

}  // namespace nuvio::host
