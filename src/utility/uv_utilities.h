// Event-loop handles on the heap, and a timer that can be paused.
//
// Each *_new allocates one libuv handle, initialises it on the loop and stores `context` as its
// data; each *_free asks libuv to close it, and the memory goes when libuv reports the close done,
// on a later pass of the loop. Between *_new and *_free the handle is the caller's; it must not be
// used after *_free.
//
// Threads: the loop's thread only. Another thread may call nothing but uv_async_send on a handle
// made here, and only as long as it has not been freed.
//
// A null argument, a failed allocation or a failing libuv call is fatal.
#pragma once

#include <uv.h>

#include <cstdint>

uv_async_t* uv_async_new(uv_loop_t* event_loop, uv_async_cb callback, void* context);
void uv_async_free(uv_async_t* handle);

// Not started. Unused by this program; part of the interface.
uv_idle_t* uv_idle_new(uv_loop_t* event_loop, void* context);
void uv_idle_free(uv_idle_t* handle);

// Not started.
uv_signal_t* uv_signal_new(uv_loop_t* event_loop, void* context);
void uv_signal_free(uv_signal_t* handle);

// Not started.
uv_timer_t* uv_timer_new(uv_loop_t* event_loop, void* context);
void uv_timer_free(uv_timer_t* handle);
// True while the timer is armed.
bool uv_timer_is_active(const uv_timer_t* handle);

// A timer that keeps the time it has left while it is paused. A pointer to the record is also a
// valid pointer to its timer: the callback receives the latter.
struct uv_pausable_timer_t {
    uv_timer_t timer;
    bool is_paused;
    uint64_t remaining_ms;  // left at the pause; 0 when not paused
};

// Not started.
uv_pausable_timer_t* uv_pausable_timer_new(uv_loop_t* event_loop, void* context);
// Stops a running timer too.
void uv_pausable_timer_free(uv_pausable_timer_t* handle);
// Arms the timer from any state, and ends a pause. Timeout and repeat in ms; repeat 0: one shot.
void uv_pausable_timer_start(uv_pausable_timer_t* handle, uv_timer_cb callback, uint64_t timeout_ms,
                             uint64_t repeat_ms);
// Disarms the timer and ends a pause.
void uv_pausable_timer_stop(uv_pausable_timer_t* handle);
bool uv_pausable_timer_is_paused(const uv_pausable_timer_t* handle);
// Stops a running timer and keeps the time left; any other timer stays as it is.
void uv_pausable_timer_pause(uv_pausable_timer_t* handle);
// Starts a paused timer with the time left, then its old repeat; any other timer stays as it is.
void uv_pausable_timer_resume(uv_pausable_timer_t* handle);

// The close callback of every *_free above: releases the handle's memory.
void uv_handle_on_closed(uv_handle_t* handle);
