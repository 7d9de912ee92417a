// A mutex that is taken in the order in which it was asked for.
//
// With std::mutex a thread that takes it again right after letting go nearly always wins, and one
// that has waited all the while goes on waiting.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <mutex>

namespace android {

// For std::scoped_lock and std::unique_lock. Any thread.
class FairMutex {
  public:
    void lock() {
        std::unique_lock lock(m_mutex);
        const uint64_t turn = m_asked++;
        m_next.wait(lock, [&] { return turn == m_served; });
    }
    void unlock() {
        {
            const std::scoped_lock lock(m_mutex);
            ++m_served;
        }
        m_next.notify_all();
    }

  private:
    std::mutex m_mutex;
    std::condition_variable m_next;
    uint64_t m_asked = 0;   // turns given out
    uint64_t m_served = 0;  // turns that are over
};

}  // namespace android
