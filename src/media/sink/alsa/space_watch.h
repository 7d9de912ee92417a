// Waits on the event loop until a PCM has room: its descriptors where they are of use, a timer
// where they are not.
//
// Creation    space_watch_new; idle until started. The PCM is borrowed and must live longer; its
//             descriptors are left alone at once when it goes away, whichever call takes it.
// Threads     every function and the callback: the loop's only.
// Errors      logged here; null arguments are fatal.
#pragma once

#include <uv.h>

#include <memory>

#include "common/released_by.h"
#include "media/sink/alsa/alsa_pcm.h"

struct space_watch;

// Copied at creation. The callback may start and free the watch.
struct space_watch_delegate {
    void* user_data;
    void (*space_available_callback)(void* user_data);
};

// Null when the PCM has no descriptors or libuv cannot watch them.
space_watch* space_watch_new(uv_loop_t* event_loop, alsa_pcm* pcm, space_watch_delegate delegate);
// Null does nothing. No callback arrives after the call.
void space_watch_free(space_watch* self);

// One callback follows, from the loop, once there is room or once there will never be any: the
// write that it leads to finds the failure. Started already: goes on.
void space_watch_start(space_watch* self);
// The queue has been dropped: a started watch looks at once, for the descriptor of a stopped
// plug-in (dmix) stays silent, however much room there is.
void space_watch_look_at_once(space_watch* self);

using space_watch_ptr = std::unique_ptr<space_watch, nuvio::ReleasedBy<space_watch_free>>;
