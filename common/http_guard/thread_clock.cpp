#include "common/http_guard/thread_clock.h"

#include <utility>

namespace nuvio {

ThreadClock::ThreadClock() : m_thread([this] { run(); }) {}

ThreadClock::~ThreadClock() {
    {
        const std::scoped_lock lock(m_mutex);
        m_is_ending = true;
    }
    m_on_change.notify_one();
    m_thread.join();
}

void ThreadClock::start(HttpGuard& guard) {
    const std::scoped_lock lock(m_mutex);
    if (std::exchange(m_guard, &guard) == nullptr) {
        m_on_change.notify_one();
    }
}

void ThreadClock::run() {
    std::unique_lock lock(m_mutex);
    const auto ends = [this] { return m_is_ending; };
    while (!m_is_ending) {
        m_on_change.wait(lock, [this] { return m_is_ending || m_guard != nullptr; });
        if (m_on_change.wait_for(lock, kTick, ends)) {
            return;
        }
        // What starts it while it looks counts for the next time.
        HttpGuard* const guard = std::exchange(m_guard, nullptr);
        lock.unlock();
        const bool looks_again = guard->look();
        lock.lock();
        m_guard = looks_again ? guard : m_guard;
    }
}

}  // namespace nuvio
