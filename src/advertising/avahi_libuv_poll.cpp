#include "advertising/avahi_libuv_poll.h"

#include <avahi-common/malloc.h>
#include <avahi-common/timeval.h>
#include <fcntl.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdint>

#include "utility/check.h"
#include "utility/log_delegate.h"

// What every watch and timeout starts with: its place in the poll object's list.
struct avahi_libuv_poll_entity {
    void (*free_function)(avahi_libuv_poll_entity* self);
    avahi_libuv_poll_entity* next;
    avahi_libuv_poll_entity* previous;
};

struct avahi_libuv_poll {
    uv_loop_t* event_loop;
    AvahiPoll api;
    avahi_libuv_poll_entity entities;  // the ring's anchor: next is the head, previous the tail
};

struct AvahiWatch : avahi_libuv_poll_entity {
    int fd;         // Avahi's
    int polled_fd;  // our duplicate of it; -1: it could not be polled, `handle` is a timer
    union {
        uv_handle_t any;
        uv_poll_t poll;
        uv_timer_t failed;  // reports the failure on the next pass
    } handle;
    AvahiWatchEvent last_events;
    AvahiWatchCallback callback;
    void* userdata;
};

struct AvahiTimeout : avahi_libuv_poll_entity {
    uv_timer_t handle;
    AvahiTimeoutCallback callback;
    void* userdata;
};

namespace {

constexpr AvahiWatchEvent kNoEvents{};
constexpr AvahiUsec kUsecPerMs = 1000;

uv_handle_t* as_handle(uv_timer_t* timer) {
    return reinterpret_cast<uv_handle_t*>(timer);
}

void append(avahi_libuv_poll* poll, avahi_libuv_poll_entity* entity) {
    entity->next = &poll->entities;
    entity->previous = poll->entities.previous;
    entity->previous->next = entity;
    poll->entities.previous = entity;
}

void unlink_entity(avahi_libuv_poll_entity* entity) {
    entity->previous->next = entity->next;
    entity->next->previous = entity->previous;
}

avahi_libuv_poll* poll_of(const AvahiPoll* api) {
    NUV_CHECK(api != NULL);
    auto* poll = static_cast<avahi_libuv_poll*>(api->userdata);
    NUV_CHECK(poll != NULL);
    return poll;
}

int to_libuv_events(AvahiWatchEvent event) {
    return ((event & AVAHI_WATCH_IN) != 0 ? UV_READABLE : 0) |
           ((event & AVAHI_WATCH_OUT) != 0 ? UV_WRITABLE : 0);
}

AvahiWatchEvent to_avahi_events(int status, int events) {
    return static_cast<AvahiWatchEvent>((status < 0 ? AVAHI_WATCH_ERR : 0) |
                                        ((events & UV_READABLE) != 0 ? AVAHI_WATCH_IN : 0) |
                                        ((events & UV_WRITABLE) != 0 ? AVAHI_WATCH_OUT : 0));
}

// The records live in plain memory of Avahi's allocator; the handle's data is the record.
void avahi_libuv_poll_on_handle_closed(uv_handle_t* handle) {
    void* record = uv_handle_get_data(handle);
    NUV_CHECK(record != NULL);
    avahi_free(record);
}

// ---- Watches ------------------------------------------------------------------------------------

bool is_pollable(const AvahiWatch* watch) {
    return watch->polled_fd >= 0;
}

void close_polled_fd(AvahiWatch* watch) {
    if (is_pollable(watch)) {
        close(watch->polled_fd);
        watch->polled_fd = -1;
    }
}

// libuv allows one active poll handle a descriptor, while D-Bus reads and writes through two
// watches on one; and it aborts when a polled descriptor is closed by its owner. A duplicate of our
// own is safe from both.
void init_watch_handle(uv_loop_t* event_loop, AvahiWatch* watch) {
    watch->polled_fd = fcntl(watch->fd, F_DUPFD_CLOEXEC, 0);
    int rc = is_pollable(watch) ? uv_poll_init(event_loop, &watch->handle.poll, watch->polled_fd)
                                : uv_translate_sys_error(errno);
    if (rc != 0) {
        app_log(LOG_LEVEL_ERROR, "Unable to poll descriptor %d for Avahi: %s", watch->fd,
                uv_strerror(rc));
        close_polled_fd(watch);
        rc = uv_timer_init(event_loop, &watch->handle.failed);
        NUV_CHECK(rc == 0);
    }
    uv_handle_set_data(&watch->handle.any, watch);
}

// The callback may free the watch: nothing may touch it afterwards.
void deliver(AvahiWatch* watch, AvahiWatchEvent events) {
    watch->last_events = events;
    watch->callback(watch, watch->fd, events, watch->userdata);
}

void avahi_libuv_poll_on_fd_activity(uv_poll_t* handle, int status, int events) {
    auto* watch = static_cast<AvahiWatch*>(handle->data);
    deliver(watch, to_avahi_events(status, events));
}

void avahi_libuv_poll_on_watch_failed(uv_timer_t* handle) {
    auto* watch = static_cast<AvahiWatch*>(handle->data);
    deliver(watch, AVAHI_WATCH_ERR);
}

void avahi_libuv_poll_watch_schedule_poll(AvahiWatch* watch, AvahiWatchEvent event) {
    const int rc = is_pollable(watch) ? uv_poll_start(&watch->handle.poll, to_libuv_events(event),
                                                      avahi_libuv_poll_on_fd_activity)
                                      : uv_timer_start(&watch->handle.failed,
                                                       avahi_libuv_poll_on_watch_failed, 0, 0);
    NUV_CHECK(rc == 0);
}

void stop_watch(AvahiWatch* watch) {
    const int rc = is_pollable(watch) ? uv_poll_stop(&watch->handle.poll)
                                      : uv_timer_stop(&watch->handle.failed);
    NUV_CHECK(rc == 0);
}

void avahi_libuv_poll_on_watch_free(AvahiWatch* watch) {
    NUV_CHECK(watch != NULL);
    unlink_entity(watch);
    stop_watch(watch);
    uv_close(&watch->handle.any, avahi_libuv_poll_on_handle_closed);
    // Safe once the handle is stopped, and the peer of a closed connection is told at once.
    close_polled_fd(watch);
}

void avahi_libuv_poll_watch_free(avahi_libuv_poll_entity* entity) {
    NUV_CHECK(entity != NULL);
    avahi_libuv_poll_on_watch_free(static_cast<AvahiWatch*>(entity));
}

AvahiWatch* avahi_libuv_poll_on_watch_new(const AvahiPoll* api, int fd, AvahiWatchEvent event,
                                          AvahiWatchCallback callback, void* userdata) {
    avahi_libuv_poll* poll = poll_of(api);
    NUV_CHECK(callback != NULL);
    AvahiWatch* watch = avahi_new0(AvahiWatch, 1);
    NUV_CHECK(watch != NULL);
    watch->free_function = avahi_libuv_poll_watch_free;
    watch->fd = fd;
    watch->callback = callback;
    watch->userdata = userdata;
    init_watch_handle(poll->event_loop, watch);
    append(poll, watch);
    avahi_libuv_poll_watch_schedule_poll(watch, event);
    return watch;
}

void avahi_libuv_poll_on_watch_update(AvahiWatch* watch, AvahiWatchEvent event) {
    NUV_CHECK(watch != NULL);
    stop_watch(watch);
    watch->last_events = kNoEvents;
    avahi_libuv_poll_watch_schedule_poll(watch, event);
}

AvahiWatchEvent avahi_libuv_poll_on_watch_get_events(AvahiWatch* watch) {
    NUV_CHECK(watch != NULL);
    return watch->last_events;
}

// ---- Timeouts -----------------------------------------------------------------------------------

void avahi_libuv_poll_on_timer_timeout(uv_timer_t* handle) {
    auto* timeout = static_cast<AvahiTimeout*>(handle->data);
    timeout->callback(timeout, timeout->userdata);
}

// `tv` is wall-clock time; the timer counts from now, in whole milliseconds.
void avahi_libuv_poll_timeout_schedule(AvahiTimeout* timeout, const timeval* tv) {
    NUV_CHECK(timeout != NULL);
    NUV_CHECK(tv != NULL);
    timeval now{};
    int rc = gettimeofday(&now, nullptr);
    NUV_CHECK(rc == 0);
    const AvahiUsec remaining_us = std::max<AvahiUsec>(avahi_timeval_diff(tv, &now), 0);
    rc = uv_timer_start(&timeout->handle, avahi_libuv_poll_on_timer_timeout,
                        static_cast<uint64_t>(remaining_us / kUsecPerMs), 0);
    NUV_CHECK(rc == 0);
}

void disarm(AvahiTimeout* timeout) {
    const int rc = uv_timer_stop(&timeout->handle);
    NUV_CHECK(rc == 0);
}

void avahi_libuv_poll_on_timeout_free(AvahiTimeout* timeout) {
    NUV_CHECK(timeout != NULL);
    unlink_entity(timeout);
    disarm(timeout);
    uv_close(as_handle(&timeout->handle), avahi_libuv_poll_on_handle_closed);
}

void avahi_libuv_poll_timeout_free(avahi_libuv_poll_entity* entity) {
    NUV_CHECK(entity != NULL);
    avahi_libuv_poll_on_timeout_free(static_cast<AvahiTimeout*>(entity));
}

void avahi_libuv_poll_on_timeout_update(AvahiTimeout* timeout, const timeval* tv) {
    NUV_CHECK(timeout != NULL);
    if (tv != nullptr) {
        avahi_libuv_poll_timeout_schedule(timeout, tv);
    } else {
        disarm(timeout);
    }
}

AvahiTimeout* avahi_libuv_poll_on_timeout_new(const AvahiPoll* api, const timeval* tv,
                                              AvahiTimeoutCallback callback, void* userdata) {
    avahi_libuv_poll* poll = poll_of(api);
    NUV_CHECK(callback != NULL);
    AvahiTimeout* timeout = avahi_new0(AvahiTimeout, 1);
    NUV_CHECK(timeout != NULL);
    timeout->free_function = avahi_libuv_poll_timeout_free;
    timeout->callback = callback;
    timeout->userdata = userdata;
    const int rc = uv_timer_init(poll->event_loop, &timeout->handle);
    NUV_CHECK(rc == 0);
    uv_handle_set_data(as_handle(&timeout->handle), timeout);
    append(poll, timeout);
    if (tv != nullptr) {
        avahi_libuv_poll_timeout_schedule(timeout, tv);
    }
    return timeout;
}

}  // namespace

avahi_libuv_poll* avahi_libuv_poll_new(uv_loop_t* event_loop) {
    NUV_CHECK(event_loop != NULL);
    avahi_libuv_poll* self = avahi_new0(avahi_libuv_poll, 1);
    NUV_CHECK(self != NULL);
    self->event_loop = event_loop;
    self->api = {.userdata = self,
                 .watch_new = avahi_libuv_poll_on_watch_new,
                 .watch_update = avahi_libuv_poll_on_watch_update,
                 .watch_get_events = avahi_libuv_poll_on_watch_get_events,
                 .watch_free = avahi_libuv_poll_on_watch_free,
                 .timeout_new = avahi_libuv_poll_on_timeout_new,
                 .timeout_update = avahi_libuv_poll_on_timeout_update,
                 .timeout_free = avahi_libuv_poll_on_timeout_free};
    self->entities.next = &self->entities;
    self->entities.previous = &self->entities;
    return self;
}

void avahi_libuv_poll_free(avahi_libuv_poll* self) {
    NUV_CHECK(self != NULL);
    for (avahi_libuv_poll_entity* entity = self->entities.next; entity != &self->entities;) {
        avahi_libuv_poll_entity* next = entity->next;
        entity->free_function(entity);
        entity = next;
    }
    avahi_free(self);
}

const AvahiPoll* avahi_libuv_poll_get(const avahi_libuv_poll* self) {
    NUV_CHECK(self != NULL);
    return &self->api;
}
