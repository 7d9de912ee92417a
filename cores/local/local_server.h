// Has the device start its local configuration server, and asks again as long as that does not
// listen: for a while its port may be another program's.
//
// The device does not say whether it could start the server, so after each start the process's own
// sockets are looked at. The pauses grow from kFirstPause to kLongestPause; once the server listens
// nothing is asked any more.
//
// Threads: the loop's. Nothing here waits.
#pragma once

#include <uv.h>

#include <cstdint>
#include <functional>

#include "local/base/logger.h"
#include "local/base/loop_wakeup.h"
#include "sdk/nuvio_connect.h"

namespace local_core {

class LocalServer {
  public:
    static constexpr uint64_t kFirstPauseMs = 1'000;
    static constexpr uint64_t kLongestPauseMs = 60'000;

    // `on_due` says that it is time for another start. Throws std::runtime_error when the loop has
    // no handle left.
    LocalServer(uv_loop_t* loop, const Logger& logger, std::function<void()> on_due);

    // True when the server listens. Calls the delegate where that is not so and a start is due.
    bool start(nuv_connect* core, const nuv_local_config_server_delegate& delegate);

  private:
    const Logger& m_logger;
    const std::function<void()> m_on_due;
    bool m_listens = false;
    uint64_t m_pause_ms = 0;         // before the next start
    LoopHandle<uv_timer_t> m_pause;  // armed during it
};

}  // namespace local_core
