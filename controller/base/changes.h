// A version of everything that pages show: who changes something announces it, who shows it waits.
// Any thread.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>

namespace nuvio::controller {

class Changes {
  public:
    void announce() {
        const std::scoped_lock lock(m_mutex);
        ++m_version;
        m_on_change.notify_all();
    }
    // Wakes everyone who waits, for good.
    void close() {
        const std::scoped_lock lock(m_mutex);
        m_is_closed = true;
        m_on_change.notify_all();
    }
    bool is_closed() const {
        const std::scoped_lock lock(m_mutex);
        return m_is_closed;
    }
    // Returns at a version other than `seen`, when closed, or after `limit`; what it is then. The
    // first version is 1.
    uint64_t wait(uint64_t seen, std::chrono::milliseconds limit) {
        std::unique_lock lock(m_mutex);
        m_on_change.wait_for(lock, limit, [&] { return m_version != seen || m_is_closed; });
        return m_version;
    }

  private:
    mutable std::mutex m_mutex;
    std::condition_variable m_on_change;
    uint64_t m_version = 1;
    bool m_is_closed = false;
};

}  // namespace nuvio::controller
