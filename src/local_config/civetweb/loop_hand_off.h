// The hand-off of one request at a time from the HTTP worker to the loop thread, and of its result
// back.
//
// Locking   `mutex` guards every field. The answer itself (response buffers, parsed request) needs
//           no lock: the loop writes it before it reports the result, the worker reads it after.
// Stopping  cancel() answers a waiting request at once, unless the loop is at work on it right now;
//           then the worker still waits, because the loop reads what the worker owns. The worker
//           holds a `request` while it answers; wait_until_idle() lets it finish.
#pragma once

#include <uv.h>

#include <cstdint>

#include "utility/check.h"

class loop_hand_off {
  public:
    loop_hand_off();
    ~loop_hand_off();
    loop_hand_off(const loop_hand_off&) = delete;
    loop_hand_off& operator=(const loop_hand_off&) = delete;

    // Worker: a handler is running, until the scope ends.
    class request {
      public:
        explicit request(loop_hand_off& owner);
        ~request();
        request(const request&) = delete;
        request& operator=(const request&) = delete;

      private:
        loop_hand_off& m_owner;
    };

    // Worker: wakes the loop through `async`, whose callback calls answer(), and waits for it,
    // without a time-out. False when the work failed or was cancelled.
    bool hand_off(uv_async_t* async);

    // Loop: does the work that waits behind `async` and reports its result. A wake-up whose request
    // is gone finds nothing to do.
    template <typename Work>
    void answer(const uv_async_t* async, Work&& work) {
        if (take(async)) {
            report(work());
        }
    }

    // Loop: from now on nobody waits here, until reopen().
    void cancel();
    void reopen();

    // Stopper: waits until no handler is running, for `patience_ms` at most.
    void wait_until_idle(uint64_t patience_ms);

  private:
    bool take(const uv_async_t* async);
    void report(bool success);

    bool result_available = false;
    bool result = false;
    uv_mutex_t mutex;
    uv_cond_t condition;
    const uv_async_t* waiting = nullptr;  // of the request that the loop has not taken up yet
    bool taken = false;                   // the loop is at work on the request
    bool cancelled = false;
    bool handler_is_running = false;
};
