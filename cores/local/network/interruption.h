// Lets any thread end what another one waits for in remote sources, for good.
#pragma once

#include <mutex>

#include "local/network/http_source.h"

namespace local_core {

class Interruption {
  public:
    // Any thread. What is watched now is cancelled, and what is watched later at once.
    void interrupt() {
        const std::lock_guard lock(m_mutex);
        m_is_interrupted = true;
        if (m_source != nullptr) {
            m_source->cancel();
        }
    }

    // As long as it lives, an interruption cancels the source, which must live longer. One at a
    // time.
    class Watch {
      public:
        Watch(Interruption& interruption, HttpSource& source) : m_interruption(interruption) {
            const std::lock_guard lock(m_interruption.m_mutex);
            m_interruption.m_source = &source;
            if (m_interruption.m_is_interrupted) {
                source.cancel();
            }
        }
        ~Watch() {
            const std::lock_guard lock(m_interruption.m_mutex);
            m_interruption.m_source = nullptr;
        }
        Watch(const Watch&) = delete;
        Watch& operator=(const Watch&) = delete;

      private:
        Interruption& m_interruption;
    };

  private:
    std::mutex m_mutex;
    HttpSource* m_source = nullptr;
    bool m_is_interrupted = false;
};

}  // namespace local_core
