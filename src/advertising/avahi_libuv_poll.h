// Lets the Avahi client library run on a libuv loop: its watches become poll handles, its deadlines
// one-shot timers.
//
// Destruction may come while watches and timeouts are alive; each is released, and its memory goes
//             when libuv reports its handle closed, on a later pass of the loop. No callback
//             arrives after that call.
// Threads     the loop thread only; Avahi's callbacks arrive there too, never from inside a call
//             of the table.
// Errors      null arguments and failing libuv calls are fatal. A descriptor that cannot be polled
//             (closed, say) is not: the watch reports AVAHI_WATCH_ERR on the next pass instead.
#pragma once

#include <avahi-common/watch.h>
#include <uv.h>

struct avahi_libuv_poll;

// Borrows the loop, which must outlive the object's handles. Never null.
avahi_libuv_poll* avahi_libuv_poll_new(uv_loop_t* event_loop);
// After the Avahi client that uses the table has been freed.
void avahi_libuv_poll_free(avahi_libuv_poll* self);

// The table for avahi_client_new; it belongs to `self` and lives as long.
//
// Any number of watches may share a descriptor. A watch polls a duplicate of its descriptor and
// hands the original to its callback, so the owner may close the original once the watch is freed.
const AvahiPoll* avahi_libuv_poll_get(const avahi_libuv_poll* self);
