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

enum class renewal {
    none,   // the manager works already, or there is no mixer yet; that is not logged
    again,  // it was lost; its successor was given the values that it had last
    first,  // there was none; its volume and mute state are news to everybody
};
renewal renew_volume_manager(volume_manager_ptr& manager, const volume_control& control);
