// Runs functions on the thread of the default loop while a bridge runs that.
#pragma once

#include <condition_variable>
#include <functional>
#include <mutex>
#include <utility>

#include "utility/uv_utilities.h"

namespace fakes {

class OnLoop {
  public:
    // Before the loop runs; close() before it ends.
    OnLoop() : m_async(uv_async_new(uv_default_loop(), serve, this)) {}
    OnLoop(const OnLoop&) = delete;
    OnLoop& operator=(const OnLoop&) = delete;

    // Returns when the function has returned. Any thread but the loop's.
    void run(std::function<void()> function) {
        std::unique_lock lock(m_mutex);
        m_function = std::move(function);
        uv_async_send(m_async);
        m_done.wait(lock, [this] { return m_function == nullptr; });
    }
    void close() {
        run([this] { uv_async_free(m_async); });
    }

  private:
    static void serve(uv_async_t* async) {
        auto& self = *static_cast<OnLoop*>(async->data);
        const std::scoped_lock lock(self.m_mutex);
        if (self.m_function != nullptr) {
            self.m_function();
            self.m_function = nullptr;
            self.m_done.notify_all();
        }
    }

    uv_async_t* const m_async;
    std::mutex m_mutex;
    std::condition_variable m_done;
    std::function<void()> m_function;
};

}  // namespace fakes
