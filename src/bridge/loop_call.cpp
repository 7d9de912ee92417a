#include "bridge/loop_call.h"

#include <utility>

#include "utility/check.h"
#include "utility/uv_utilities.h"

namespace android {

LoopCall::LoopCall(uv_loop_t* loop, std::chrono::milliseconds patience)
    : m_patience(patience), m_handle(uv_async_new(loop, onWakeUp, this)) {}

LoopCall::~LoopCall() {
    NUV_CHECK(m_handle == NULL);
}

bool LoopCall::run(const std::stop_token& stop, std::function<void()> function) {
    NUV_CHECK(std::this_thread::get_id() != m_loopThread);  // it would wait for itself
    std::unique_lock lock(m_mutex);
    if (m_handle == nullptr || m_state == State::Running) {
        return false;
    }
    m_function = std::move(function);
    m_state = State::Waiting;
    uv_async_send(m_handle);
    m_changed.wait_for(lock, stop, m_patience,
                       [this] { return m_state == State::Done || m_handle == nullptr; });
    if (m_state == State::Waiting) {
        m_state = State::Idle;  // withdrawn
        m_function = nullptr;
    }
    return m_state == State::Done;
}

void LoopCall::close() {
    const std::scoped_lock lock(m_mutex);
    if (m_handle != nullptr) {
        uv_async_free(std::exchange(m_handle, nullptr));
        m_changed.notify_all();
    }
}

void LoopCall::onWakeUp(uv_async_t* handle) {
    static_cast<LoopCall*>(uv_handle_get_data(reinterpret_cast<uv_handle_t*>(handle)))->serve();
}

void LoopCall::serve() {
    std::unique_lock lock(m_mutex);
    if (m_state != State::Waiting) {
        return;  // withdrawn meanwhile
    }
    m_state = State::Running;
    // Its own from here on: the caller may give up.
    std::function<void()> function = std::exchange(m_function, nullptr);
    lock.unlock();
    function();
    function = nullptr;
    lock.lock();
    m_state = State::Done;
    m_changed.notify_all();
}

}  // namespace android
