// Runs a function on the loop's thread for another thread, which waits for the end of it.
//
// Creation    on the loop's thread.
// Destruction on the loop's thread, after close() and when no run() is in progress.
// Waiting     ends with the function, when a stop is asked for, when the object is closed, and when
//             the patience is over: the loop may sit in a platform call that itself waits for the
//             caller's lock. A function that the loop has not begun is then withdrawn; one that it
//             has begun goes on, so a function must own what it uses, or use what belongs to the
//             loop's thread. The loop never waits for the caller.
#pragma once

#include <uv.h>

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <stop_token>
#include <thread>

namespace android {

class LoopCall {
  public:
    static constexpr std::chrono::seconds kPatience{2};

    explicit LoopCall(uv_loop_t* loop, std::chrono::milliseconds patience = kPatience);
    ~LoopCall();
    LoopCall(const LoopCall&) = delete;
    LoopCall& operator=(const LoopCall&) = delete;

    // True when the function has run, and what it wrote may be read. One thread at a time, never
    // the loop's (checked). The function must be short and must not throw.
    bool run(const std::stop_token& stop, std::function<void()> function);

    // No function is run from now on. Loop's thread; the handle finishes closing on a later pass.
    void close();

  private:
    enum class State { Idle, Waiting, Running, Done };

    static void onWakeUp(uv_async_t* handle);
    void serve();

    const std::thread::id m_loopThread = std::this_thread::get_id();
    const std::chrono::milliseconds m_patience;
    std::mutex m_mutex;
    std::condition_variable_any m_changed;
    // Guarded by m_mutex:
    uv_async_t* m_handle;  // null when closed
    State m_state = State::Idle;
    std::function<void()> m_function;  // while one waits
};

}  // namespace android
