#include "controller/base/wall_timer.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <ctime>
#include <system_error>

namespace nuvio::controller {

WallTimer::WallTimer()
    : m_timer(timerfd_create(CLOCK_REALTIME, TFD_NONBLOCK | TFD_CLOEXEC)),
      m_wake_up(eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC)) {
    if (!m_timer || !m_wake_up) {
        throw std::system_error(errno, std::generic_category(), "no timer");
    }
}

bool WallTimer::wait(std::optional<int64_t> until) {
    itimerspec due{};  // none
    if (until) {
        due.it_value.tv_sec = static_cast<time_t>(*until);
    }
    if (timerfd_settime(m_timer.get(), TFD_TIMER_ABSTIME | TFD_TIMER_CANCEL_ON_SET, &due,
                        nullptr) != 0 &&
        errno == ECANCELED) {
        return true;
    }
    std::array<pollfd, 2> waits{{{m_timer.get(), POLLIN, 0}, {m_wake_up.get(), POLLIN, 0}}};
    poll(waits.data(), waits.size(), -1);
    eventfd_t ignored = 0;
    eventfd_read(m_wake_up.get(), &ignored);
    uint64_t expirations = 0;
    return read(m_timer.get(), &expirations, sizeof expirations) < 0 && errno == ECANCELED;
}

void WallTimer::wake_up() {
    eventfd_write(m_wake_up.get(), 1);
}

}  // namespace nuvio::controller
