// Watches ALSA's poll descriptors on the event loop: one libuv poll handle for each usable entry of
// an array of poll descriptors, one callback with the whole array.
//
// Creation    descriptor_poller_new; idle until started. Start and stop may alternate.
// Destruction descriptor_poller_free; the memory goes once libuv has closed the handles, on a later
//             pass of the loop. No callback arrives after the call.
// Threads     every function and the callback: the loop's thread only.
// Ownership   on success the poller takes the array over, on failure it stays with the caller. The
//             descriptors themselves are ALSA's: nothing here closes them, and the poller must be
//             freed before ALSA does. libuv makes them non-blocking.
#pragma once

#include <poll.h>
#include <uv.h>

#include <memory>

#include "common/released_by.h"

struct descriptor_poller;

// Copied at creation. The callback may start, stop and free the poller; it may read the array and
// pass it on during the call only.
struct descriptor_poller_delegate {
    void* user_data;
    // The entry that fired has its `revents` rewritten with POLLIN, POLLOUT and, for a descriptor
    // that libuv reports as failed, POLLERR; the other entries keep theirs. A failed descriptor is
    // not watched any longer until the next start.
    void (*poll_event_callback)(descriptor_poller* poller, pollfd* descriptors, unsigned count,
                                void* user_data);
};

// Entries with a negative descriptor are left out. Null, with the array still the caller's, when
// memory runs out or libuv cannot watch a descriptor. A null loop, array or callback and a zero
// count are fatal.
descriptor_poller* descriptor_poller_new(uv_loop_t* event_loop,
                                         std::unique_ptr<pollfd[]>&& descriptors, unsigned count,
                                         descriptor_poller_delegate delegate);
// Null does nothing.
void descriptor_poller_free(descriptor_poller* self);

// Watches every entry for the POLLIN and POLLOUT it requests; entries watched already stay so. When
// libuv refuses one, nothing is watched.
void descriptor_poller_start_polling(descriptor_poller* self);
void descriptor_poller_stop_polling(descriptor_poller* self);
// False: no entry is watched, so no callback will come.
bool descriptor_poller_is_polling(descriptor_poller* self);

using descriptor_poller_ptr =
    std::unique_ptr<descriptor_poller, nuvio::ReleasedBy<descriptor_poller_free>>;
