// The device's volume and mute: one ALSA simple mixer element, read and written as a percentage and
// a flag, and watched on the event loop for changes from anywhere.
//
// Creation    volume_manager_new; the element is watched from then on.
// Destruction volume_manager_free stops and frees the descriptor poller, then closes the mixer. The
//             poller's handles finish closing on a later pass of the loop.
// Threads     every function and callback: the loop's thread only.
// Units       volume in percent, 0 to 100; above 100 counts as 100.
// Errors      logged here. A failed read gives the neutral value (0 percent, unmuted); a failed
//             write changes nothing. A manager is lost, and both fail without a call into ALSA,
//             after the element has gone, after the mixer has failed for good (EPIPE, ENODEV, EIO),
//             and after it has failed ten times in a row.
// Own writes  are reported as well, from the loop. A volume that somebody sets elsewhere between a
//             write and its report can be overwritten there by the older, reported one.
#pragma once

#include <uv.h>

#include <cstdint>
#include <memory>

#include "common/released_by.h"

struct volume_manager;

// Copied at creation; both callbacks are required. They arrive from the loop, never from inside a
// call of this header, once for each change of the value that differs from the one last reported
// (the value at creation counts as reported), changes made through this header included. They may
// read and write the element, not free the manager.
struct volume_manager_delegate {
    void* user_data;
    void (*volume_changed_callback)(volume_manager* manager, uint32_t volume, void* user_data);
    void (*mute_state_changed_callback)(volume_manager* manager, bool muted, void* user_data);
};

// Null, after a log line, when the mixer cannot be opened or has no such element with a playback
// volume and a playback switch. Null arguments, and descriptors that the loop cannot watch, are
// fatal.
volume_manager* volume_manager_new(uv_loop_t* event_loop, const char* control_device,
                                   const char* element_name, unsigned element_index,
                                   volume_manager_delegate delegate);
void volume_manager_free(volume_manager* self);

// Read from the element at each call.
uint32_t volume_manager_get_volume(volume_manager* self);
bool volume_manager_get_mute_state(volume_manager* self);

// True once the element has gone or the mixer fails: nothing is followed any longer, whatever comes
// back. A new manager may find the element again.
bool volume_manager_is_lost(const volume_manager* self);
// The values that the delegate was told last, or those at creation; of a lost manager those set
// since. So they are what its successor is to be given.
uint32_t volume_manager_get_reported_volume(const volume_manager* self);
bool volume_manager_get_reported_mute_state(const volume_manager* self);

// Written on all channels, unless the element shows the value already.
void volume_manager_set_volume(volume_manager* self, uint32_t volume);
void volume_manager_set_mute_state(volume_manager* self, bool muted);

using volume_manager_ptr = std::unique_ptr<volume_manager, nuvio::ReleasedBy<volume_manager_free>>;
