// Runs one function on later passes of a libuv loop, on request.
//
// Threads: everything but `wake` belongs to the loop's thread. The callback never runs from inside
// a call of this class. After the destructor it does not run again; the handles finish closing on
// later passes of the loop.
#pragma once

#include <uv.h>

#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <stdexcept>

namespace local_core {

// libuv keeps a handle's memory until its close callback has run.
template <typename Handle>
struct LoopHandleCloser {
    void operator()(Handle* handle) const {
        uv_close(reinterpret_cast<uv_handle_t*>(handle), [](uv_handle_t* closed) {
            delete static_cast<Handle*>(static_cast<void*>(closed));
        });
    }
};
template <typename Handle>
using LoopHandle = std::unique_ptr<Handle, LoopHandleCloser<Handle>>;

// `init` initialises the handle on its loop; the handle's data is `owner`. Throws
// std::runtime_error when the loop takes no further one.
template <typename Handle, typename Init>
LoopHandle<Handle> make_loop_handle(void* owner, Init init) {
    auto handle = std::make_unique<Handle>();
    if (init(handle.get()) != 0) {
        throw std::runtime_error("the event loop takes no further handle");
    }
    handle->data = owner;
    return LoopHandle<Handle>(handle.release());
}

class LoopWakeup {
  public:
    // Throws std::runtime_error when the loop has no handle left.
    LoopWakeup(uv_loop_t* loop, std::function<void()> callback);

    // Any thread. One run of the callback follows, however often this is called before it.
    void wake();

    // The callback runs on every pass of the loop until `rest`; cheaper than `wake`, no system
    // call.
    void run_each_pass();
    void rest();
    // The callback runs on a pass of the loop at this time, or never; the last call counts.
    void run_at(std::optional<std::chrono::steady_clock::time_point> time);

  private:
    std::function<void()> m_callback;
    LoopHandle<uv_async_t> m_async;
    LoopHandle<uv_idle_t> m_idle;
    LoopHandle<uv_timer_t> m_timer;
};

}  // namespace local_core
