#include "media/sink/alsa/descriptor_poller.h"

#include <algorithm>
#include <new>
#include <span>
#include <utility>

#include "utility/check.h"

namespace {

struct watch {
    uv_poll_t handle;
    pollfd* entry;
};

}  // namespace

struct descriptor_poller {
    unsigned count = 0;  // handles; while closing, those not closed yet
    std::unique_ptr<watch[]> handles;
    std::unique_ptr<pollfd[]> descriptors;
    unsigned descriptor_count = 0;
    descriptor_poller_delegate delegate{};

    std::span<watch> watches() { return {handles.get(), count}; }
};

namespace {

uv_handle_t* as_handle(uv_poll_t* handle) {
    return reinterpret_cast<uv_handle_t*>(handle);
}

bool is_usable(const pollfd& entry) {
    return entry.fd >= 0;
}

int requested_events(const pollfd& entry) {
    return ((entry.events & POLLIN) != 0 ? UV_READABLE : 0) |
           ((entry.events & POLLOUT) != 0 ? UV_WRITABLE : 0);
}

short returned_events(int status, int events) {
    return static_cast<short>((status < 0 ? POLLERR : 0) |
                              ((events & UV_READABLE) != 0 ? POLLIN : 0) |
                              ((events & UV_WRITABLE) != 0 ? POLLOUT : 0));
}

watch* find_watch(descriptor_poller* self, const uv_poll_t* handle) {
    const auto watches = self->watches();
    const auto found = std::ranges::find_if(
        watches, [handle](const watch& candidate) { return &candidate.handle == handle; });
    return found == watches.end() ? nullptr : &*found;
}

void descriptor_poller_on_poll_event(uv_poll_t* handle, int status, int events) {
    auto* self = static_cast<descriptor_poller*>(uv_handle_get_data(as_handle(handle)));
    watch* fired = self == nullptr ? nullptr : find_watch(self, handle);
    if (fired == nullptr) {
        return;
    }
    fired->entry->revents = returned_events(status, events);
    self->delegate.poll_event_callback(self, self->descriptors.get(), self->descriptor_count,
                                       self->delegate.user_data);
}

void descriptor_poller_on_handle_closed(uv_handle_t* handle) {
    auto* self = static_cast<descriptor_poller*>(uv_handle_get_data(handle));
    if (--self->count == 0) {
        delete self;
    }
}

void stop_watches(std::span<watch> watches) {
    for (watch& each : watches) {
        uv_poll_stop(&each.handle);
    }
}

// The last close callback deletes the poller; without handles it goes at once.
void close_and_delete(descriptor_poller* self) {
    if (self->count == 0) {
        delete self;
        return;
    }
    for (watch& each : self->watches()) {
        uv_close(as_handle(&each.handle), descriptor_poller_on_handle_closed);
    }
}

// Leaves `count` at the number of handles initialised, which is what there is to close.
bool init_watches(descriptor_poller* self, uv_loop_t* event_loop, std::span<pollfd> entries) {
    for (pollfd& entry : entries) {
        if (!is_usable(entry)) {
            continue;
        }
        watch& next = self->handles[self->count];
        if (uv_poll_init(event_loop, &next.handle, entry.fd) != 0) {
            return false;
        }
        next.entry = &entry;
        uv_handle_set_data(as_handle(&next.handle), self);
        ++self->count;
    }
    return true;
}

}  // namespace

descriptor_poller* descriptor_poller_new(uv_loop_t* event_loop,
                                         std::unique_ptr<pollfd[]>&& descriptors, unsigned count,
                                         descriptor_poller_delegate delegate) {
    NUV_CHECK(event_loop != NULL);
    NUV_CHECK(descriptors != NULL);
    NUV_CHECK(count > 0);
    NUV_CHECK(delegate.poll_event_callback != NULL);

    const std::span<pollfd> entries(descriptors.get(), count);
    const auto usable = static_cast<size_t>(std::ranges::count_if(entries, is_usable));
    std::unique_ptr<descriptor_poller> self(new (std::nothrow) descriptor_poller);
    if (!self) {
        return nullptr;
    }
    if (usable > 0) {
        self->handles.reset(new (std::nothrow) watch[usable]());
        if (!self->handles) {
            return nullptr;
        }
    }
    if (!init_watches(self.get(), event_loop, entries)) {
        close_and_delete(self.release());
        return nullptr;
    }
    self->descriptors = std::move(descriptors);
    self->descriptor_count = count;
    self->delegate = delegate;
    return self.release();
}

void descriptor_poller_free(descriptor_poller* self) {
    if (self != nullptr) {
        close_and_delete(self);
    }
}

void descriptor_poller_start_polling(descriptor_poller* self) {
    NUV_CHECK(self != NULL);
    for (watch& each : self->watches()) {
        if (uv_is_active(as_handle(&each.handle)) != 0) {
            continue;
        }
        if (uv_poll_start(&each.handle, requested_events(*each.entry),
                          descriptor_poller_on_poll_event) != 0) {
            stop_watches(self->watches());
            return;
        }
    }
}

void descriptor_poller_stop_polling(descriptor_poller* self) {
    NUV_CHECK(self != NULL);
    stop_watches(self->watches());
}

bool descriptor_poller_is_polling(descriptor_poller* self) {
    NUV_CHECK(self != NULL);
    return std::ranges::any_of(self->watches(), [](const watch& each) {
        return uv_is_active(reinterpret_cast<const uv_handle_t*>(&each.handle)) != 0;
    });
}
