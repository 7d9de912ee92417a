#include "utility/uv_utilities.h"

#include <cstddef>
#include <cstdlib>

#include "utility/check.h"

namespace {

template <typename Handle>
uv_handle_t* as_handle(Handle* handle) {
    return reinterpret_cast<uv_handle_t*>(handle);
}

// A zeroed block of plain memory, initialised by `init` (and by libuv as its first member): the
// close callback frees it through a uv_handle_t*, whatever type it was made as. `function` is the
// caller's name, for the checks.
template <typename Block, typename Init, typename... Arguments>
Block* new_handle(const char* function, uv_loop_t* event_loop, void* context, Init init,
                  Arguments... arguments) {
    NUV_CHECK_OF(function, event_loop != NULL);
    auto* handle = static_cast<Block*>(std::calloc(1, sizeof(Block)));
    NUV_CHECK_OF(function, handle != NULL);
    const int rc = init(event_loop, handle, arguments...);
    NUV_CHECK_OF(function, rc == 0);
    uv_handle_set_data(as_handle(handle), context);
    return handle;
}

template <typename Handle>
void close_block(Handle* handle) {
    uv_close(as_handle(handle), uv_handle_on_closed);
}

void clear_pause(uv_pausable_timer_t* handle) {
    handle->is_paused = false;
    handle->remaining_ms = 0;
}

}  // namespace

static_assert(offsetof(uv_pausable_timer_t, timer) == 0, "the record doubles as its timer");

void uv_handle_on_closed(uv_handle_t* handle) {
    NUV_CHECK(handle != NULL);
    std::free(handle);
}

uv_async_t* uv_async_new(uv_loop_t* event_loop, uv_async_cb callback, void* context) {
    return new_handle<uv_async_t>(__func__, event_loop, context, uv_async_init, callback);
}

void uv_async_free(uv_async_t* handle) {
    NUV_CHECK(handle != NULL);
    close_block(handle);
}

uv_idle_t* uv_idle_new(uv_loop_t* event_loop, void* context) {
    return new_handle<uv_idle_t>(__func__, event_loop, context, uv_idle_init);
}

void uv_idle_free(uv_idle_t* handle) {
    NUV_CHECK(handle != NULL);
    close_block(handle);
}

uv_signal_t* uv_signal_new(uv_loop_t* event_loop, void* context) {
    return new_handle<uv_signal_t>(__func__, event_loop, context, uv_signal_init);
}

void uv_signal_free(uv_signal_t* handle) {
    NUV_CHECK(handle != NULL);
    close_block(handle);
}

uv_timer_t* uv_timer_new(uv_loop_t* event_loop, void* context) {
    return new_handle<uv_timer_t>(__func__, event_loop, context, uv_timer_init);
}

void uv_timer_free(uv_timer_t* handle) {
    NUV_CHECK(handle != NULL);
    close_block(handle);
}

bool uv_timer_is_active(const uv_timer_t* handle) {
    NUV_CHECK(handle != NULL);
    return uv_is_active(reinterpret_cast<const uv_handle_t*>(handle)) != 0;
}

uv_pausable_timer_t* uv_pausable_timer_new(uv_loop_t* event_loop, void* context) {
    // Zeroed: not paused.
    const auto init = [](uv_loop_t* loop, uv_pausable_timer_t* handle) {
        return uv_timer_init(loop, &handle->timer);
    };
    return new_handle<uv_pausable_timer_t>(__func__, event_loop, context, init);
}

void uv_pausable_timer_free(uv_pausable_timer_t* handle) {
    NUV_CHECK(handle != NULL);
    close_block(handle);
}

void uv_pausable_timer_start(uv_pausable_timer_t* handle, uv_timer_cb callback, uint64_t timeout_ms,
                             uint64_t repeat_ms) {
    NUV_CHECK(handle != NULL);
    NUV_CHECK(callback != NULL);
    const int rc = uv_timer_start(&handle->timer, callback, timeout_ms, repeat_ms);
    NUV_CHECK(rc == 0);
    clear_pause(handle);
}

void uv_pausable_timer_stop(uv_pausable_timer_t* handle) {
    NUV_CHECK(handle != NULL);
    const int rc = uv_timer_stop(&handle->timer);
    NUV_CHECK(rc == 0);
    clear_pause(handle);
}

bool uv_pausable_timer_is_paused(const uv_pausable_timer_t* handle) {
    NUV_CHECK(handle != NULL);
    return handle->is_paused;
}

void uv_pausable_timer_pause(uv_pausable_timer_t* handle) {
    NUV_CHECK(handle != NULL);
    if (handle->is_paused || !uv_timer_is_active(&handle->timer)) {
        return;
    }
    handle->is_paused = true;
    handle->remaining_ms = uv_timer_get_due_in(&handle->timer);
    const int rc = uv_timer_stop(&handle->timer);
    NUV_CHECK(rc == 0);
}

void uv_pausable_timer_resume(uv_pausable_timer_t* handle) {
    NUV_CHECK(handle != NULL);
    if (!handle->is_paused) {
        return;
    }
    // libuv keeps the callback and the repeat of a stopped timer.
    const int rc = uv_timer_start(&handle->timer, handle->timer.timer_cb, handle->remaining_ms,
                                  uv_timer_get_repeat(&handle->timer));
    NUV_CHECK(rc == 0);
    clear_pause(handle);
}
