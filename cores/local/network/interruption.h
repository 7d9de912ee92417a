// Lets any thread end what another one waits for, for good.
#pragma once

#include <functional>
#include <list>
#include <mutex>
#include <utility>

namespace local_core {

class Interruption {
  public:
    // Any thread. What is watched now is cancelled, and what is watched later at once.
    void interrupt() {
        const std::lock_guard lock(m_mutex);
        m_is_interrupted = true;
        for (const auto& cancel : m_watched) {
            cancel();
        }
    }
    bool is_interrupted() const {
        const std::lock_guard lock(m_mutex);
        return m_is_interrupted;
    }

    // As long as it lives, an interruption calls `cancel`, on whichever thread.
    class Watch {
      public:
        Watch(Interruption& interruption, std::function<void()> cancel)
            : m_interruption(interruption) {
            const std::lock_guard lock(m_interruption.m_mutex);
            m_place =
                m_interruption.m_watched.insert(m_interruption.m_watched.end(), std::move(cancel));
            if (m_interruption.m_is_interrupted) {
                (*m_place)();
            }
        }
        ~Watch() {
            const std::lock_guard lock(m_interruption.m_mutex);
            m_interruption.m_watched.erase(m_place);
        }
        Watch(const Watch&) = delete;
        Watch& operator=(const Watch&) = delete;

      private:
        Interruption& m_interruption;
        std::list<std::function<void()>>::iterator m_place;
    };

  private:
    mutable std::mutex m_mutex;
    std::list<std::function<void()>> m_watched;
    bool m_is_interrupted = false;
};

}  // namespace local_core
