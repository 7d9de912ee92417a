#include "bridge/loop_call.h"

#include <utility>

#include "utility/check.h"
#include "utility/uv_utilities.h"

namespace android {

LoopCall::LoopCall(uv_loop_t* loop) : m_handle(uv_async_new(loop, onWakeUp, this)) {}

LoopCall::~LoopCall() {
    NUV_CHECK(m_handle == NULL);
}

bool LoopCall::run(const std::stop_token& stop, const std::function<void()>& function) {
    NUV_CHECK(std::this_thread::get_id() != m_loopThread);
    std::unique_lock lock(m_mutex);
    if (m_handle == nullptr) {
        return false;
    }
    m_function = &function;
    m_state = State::Waiting;
    uv_async_send(m_handle);
    m_changed.wait_for(lock, stop, kPatience,
                       [this] { return m_state == State::Done || m_handle == nullptr; });
    if (m_state == State::Waiting) {
        m_state = State::Idle;
        return false;
    }
    // Begun: the function uses what the caller owns, so its end is waited for even while stopping.
    m_changed.wait(lock, [this] { return m_state == State::Done; });
    m_state = State::Idle;
    return true;
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
    lock.unlock();
    (*m_function)();
    lock.lock();
    m_state = State::Done;
    m_changed.notify_all();
}

}  // namespace android
