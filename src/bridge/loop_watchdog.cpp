#include "bridge/loop_watchdog.h"

#include <algorithm>
#include <cstdint>
#include <string>

#include "utility/service_manager.h"
#include "utility/uv_utilities.h"

namespace android {
namespace {

constexpr uint64_t kMicrosecondsIn = 1000;  // a millisecond

void feed(uv_timer_t*) {
    service_manager_notify("WATCHDOG=1");
}

}  // namespace

LoopWatchdog::LoopWatchdog(uv_loop_t* loop) {
    const uint64_t allowedUs = service_manager_watchdog_us();
    if (allowedUs == 0) {
        return;
    }
    service_manager_notify(("WATCHDOG_USEC=" + std::to_string(allowedUs)).c_str());
    m_timer = uv_timer_new(loop, nullptr);
    uv_unref(reinterpret_cast<uv_handle_t*>(m_timer));
    const uint64_t periodMs = std::max<uint64_t>(allowedUs / kMicrosecondsIn / 3, 1);
    uv_timer_start(m_timer, feed, 0, periodMs);
}

LoopWatchdog::~LoopWatchdog() {
    if (m_timer != nullptr) {
        uv_timer_free(m_timer);
        standDown();
    }
}

void LoopWatchdog::standDown() {
    if (service_manager_watchdog_us() != 0) {
        service_manager_notify("WATCHDOG_USEC=0");
    }
}

}  // namespace android
