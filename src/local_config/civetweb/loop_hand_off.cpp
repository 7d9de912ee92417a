#include "local_config/civetweb/loop_hand_off.h"

#include <utility>

namespace {

class held_lock {
  public:
    explicit held_lock(uv_mutex_t* mutex) : m_mutex(mutex) { uv_mutex_lock(m_mutex); }
    ~held_lock() { uv_mutex_unlock(m_mutex); }
    held_lock(const held_lock&) = delete;
    held_lock& operator=(const held_lock&) = delete;

  private:
    uv_mutex_t* m_mutex;
};

}  // namespace

loop_hand_off::loop_hand_off() {
    int rc = uv_mutex_init(&mutex);
    NUV_CHECK(rc == 0);
    rc = uv_cond_init(&condition);
    NUV_CHECK(rc == 0);
}

loop_hand_off::~loop_hand_off() {
    uv_mutex_destroy(&mutex);
    uv_cond_destroy(&condition);
}

loop_hand_off::request::request(loop_hand_off& owner) : m_owner(owner) {
    const held_lock lock(&m_owner.mutex);
    m_owner.handler_is_running = true;
}

loop_hand_off::request::~request() {
    {
        const held_lock lock(&m_owner.mutex);
        m_owner.handler_is_running = false;
    }
    uv_cond_broadcast(&m_owner.condition);
}

bool loop_hand_off::hand_off(uv_async_t* async) {
    {
        const held_lock lock(&mutex);
        NUV_CHECK(!result_available);
        if (cancelled) {
            return false;
        }
        waiting = async;
    }
    const int rc = uv_async_send(async);
    NUV_CHECK(rc == 0);

    const held_lock lock(&mutex);
    while (!result_available && (taken || waiting != nullptr)) {
        uv_cond_wait(&condition, &mutex);
    }
    return std::exchange(result_available, false) && result;
}

bool loop_hand_off::take(const uv_async_t* async) {
    const held_lock lock(&mutex);
    if (waiting != async) {
        return false;
    }
    waiting = nullptr;
    taken = true;
    return true;
}

void loop_hand_off::report(bool success) {
    {
        const held_lock lock(&mutex);
        result = success;
        taken = false;
        result_available = true;
    }
    uv_cond_broadcast(&condition);
}

void loop_hand_off::cancel() {
    {
        const held_lock lock(&mutex);
        cancelled = true;
        waiting = nullptr;
    }
    uv_cond_broadcast(&condition);
}

void loop_hand_off::reopen() {
    const held_lock lock(&mutex);
    cancelled = false;
}

void loop_hand_off::wait_until_idle(uint64_t patience_ms) {
    constexpr uint64_t kNsPerMs = 1'000'000;
    const uint64_t deadline_ns = uv_hrtime() + patience_ms * kNsPerMs;
    const held_lock lock(&mutex);
    while (handler_is_running) {
        const uint64_t now_ns = uv_hrtime();
        if (now_ns >= deadline_ns ||
            uv_cond_timedwait(&condition, &mutex, deadline_ns - now_ns) != 0) {
            return;
        }
    }
}
