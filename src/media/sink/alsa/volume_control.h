// The volume manager over the life of a device: made at the start, and made again when its mixer
// went (a card pulled out, a sound server that ended) and is back. The loop's thread only.
#pragma once

#include <string>

#include "media/sink/alsa/volume_manager.h"

// What a volume manager is made from.
struct volume_control {
    uv_loop_t* event_loop;  // borrowed
    std::string device;
    std::string element;
    volume_manager_delegate delegate;
};

// Null, after a log line, where there is no such element.
volume_manager_ptr new_volume_manager(const volume_control& control);

// Replaces a lost manager, giving its successor the values it had last. One that works stays, and
// so does a lost one while its mixer is away.
void renew_lost_volume_manager(volume_manager_ptr& manager, const volume_control& control);
