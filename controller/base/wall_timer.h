// Sleeping until a moment of the wall clock, which people and NTP set meanwhile.
//
// Threads  one waits; wake_up from any.
// Errors   the constructor throws std::system_error.
#pragma once

#include <cstdint>
#include <optional>

#include "common/unique_fd.h"

namespace nuvio::controller {

class WallTimer {
  public:
    WallTimer();

    // Until then, in seconds since 1970, or for ever; or until wake_up is called, which may have
    // been before. A moment that is over, as the clock was put forward, ends it at once. True: the
    // clock was set meanwhile, which a wait for ever does not notice.
    bool wait(std::optional<int64_t> until);
    void wake_up();

  private:
    const UniqueFd m_timer;
    const UniqueFd m_wake_up;
};

}  // namespace nuvio::controller
