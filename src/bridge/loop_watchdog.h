// Tells the service manager that the loop turns, where the manager wants to know: three times in
// the time that it allows. A loop that stands still stays silent, and the manager starts the
// service again. A process without a loop (it waits for a network, or is not set up) is not
// watched.
//
// On the loop's thread, but for the static function. The timer does not keep the loop alive.
#pragma once

#include <uv.h>

namespace android {

class LoopWatchdog {
  public:
    // Begins to feed.
    explicit LoopWatchdog(uv_loop_t* loop);
    // The end of a loop is watched by other means.
    ~LoopWatchdog();
    LoopWatchdog(const LoopWatchdog&) = delete;
    LoopWatchdog& operator=(const LoopWatchdog&) = delete;

    // Not watched until there is a loop. Any thread.
    static void standDown();

  private:
    uv_timer_t* m_timer = nullptr;  // null where nobody wants to know
};

}  // namespace android
