// A guard's clock on a thread of its own, which sleeps while there is nothing to look at.
#pragma once

#include <condition_variable>
#include <mutex>
#include <thread>

#include "common/http_guard/http_guard.h"

namespace nuvio {

class ThreadClock : public GuardClock {
  public:
    // Throws std::system_error when the system has no thread left.
    ThreadClock();
    ~ThreadClock() override;

    // Any thread.
    void start(HttpGuard& guard) override;

  private:
    void run();

    std::mutex m_mutex;
    std::condition_variable m_on_change;
    HttpGuard* m_guard = nullptr;  // to look for; null while it sleeps
    bool m_is_ending = false;
    std::thread m_thread;
};

}  // namespace nuvio
