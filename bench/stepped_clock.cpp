// Loaded into the daemon while its instructions are counted: its time stands still, and goes on by
// steps that cost.py asks for once nothing has anything left to do. So what happens, and after
// what, is the same on each run, however busy the machine.
//
//   NUVIO_STEPS   a pipe, of records of Step, behind which the clock goes on by itself; without it
//                 the clock is the machine's
//   NUVIO_NOW     a file to which the clock is written behind each step, in ns
//
// Who waits with a time waits without one, and is woken by the step that comes to that time.
#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/syscall.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <ctime>
#include <mutex>
#include <thread>
#include <vector>

#include "bench/counted.h"

namespace {

constexpr int64_t kNsPerSecond = 1'000'000'000, kNsPerMs = 1'000'000;
constexpr int64_t kBegin = 1'000'000 * kNsPerSecond;
constexpr int64_t kCalendar = 1'700'000'000 * kNsPerSecond;  // by which the time of day is ahead
constexpr size_t kMostPolled = 64;

struct Step {
    int64_t until;  // ns; goes no further, and no further than to the first who waits
    int64_t mark;   // 1, 2: cost_begins, cost_ends before it
};

struct Waiting {
    int64_t until;
    int eventfd;           // or -1,
    pthread_cond_t* cond;  // or null
    int timer;             // or -1
};

std::atomic<bool> g_is_stepped{false};
std::atomic<int64_t> g_now{kBegin};
std::mutex g_mutex;
std::vector<Waiting> g_waiting;  // under the mutex

timespec timespec_of(int64_t ns) {
    return {static_cast<time_t>(ns / kNsPerSecond), static_cast<long>(ns % kNsPerSecond)};
}

int64_t ns_of(const timespec& time) {
    return static_cast<int64_t>(time.tv_sec) * kNsPerSecond + time.tv_nsec;
}

int64_t calendar_ahead_of(clockid_t clock) {
    return clock == CLOCK_REALTIME || clock == CLOCK_REALTIME_COARSE ? kCalendar : 0;
}

int set_timer(int timer, int64_t ns) {
    itimerspec setting{};
    setting.it_value = timespec_of(ns);
    return static_cast<int>(syscall(SYS_timerfd_settime, timer, 0, &setting, nullptr));
}

template <typename Is>
void forget(Is is) {
    const std::lock_guard lock(g_mutex);
    g_waiting.erase(std::remove_if(g_waiting.begin(), g_waiting.end(), is), g_waiting.end());
}

void wake(const Waiting& one) {
    if (one.cond != nullptr) {
        pthread_cond_broadcast(one.cond);
    } else if (one.timer >= 0) {
        set_timer(one.timer, 1);
    } else {
        eventfd_write(one.eventfd, 1);
    }
}

void take(const Step& step) {
    const std::lock_guard lock(g_mutex);
    int64_t next = step.until;
    for (const Waiting& one : g_waiting) {
        next = std::min(next, one.until);
    }
    g_now = std::max(g_now.load(), next);
    const auto due = std::partition(g_waiting.begin(), g_waiting.end(),
                                    [](const Waiting& one) { return one.until > g_now; });
    std::for_each(due, g_waiting.end(), wake);
    g_waiting.erase(due, g_waiting.end());
}

// Signals are for the threads that know of them.
void follow(const char* steps, const char* now) {
    sigset_t all;
    sigfillset(&all);
    pthread_sigmask(SIG_BLOCK, &all, nullptr);
    const int from = open(steps, O_RDONLY | O_CLOEXEC);
    const int to = open(now, O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
    Step step{};
    while (read(from, &step, sizeof step) == sizeof step) {
        mark_cost(step.mark);
        take(step);
        const int64_t reached = g_now;
        if (pwrite(to, &reached, sizeof reached, 0) != sizeof reached) {
            break;
        }
    }
    while (true) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
        take({g_now + kNsPerMs, 0});
    }
}

__attribute__((constructor)) void begin() {
    const char* const steps = std::getenv("NUVIO_STEPS");
    const char* const now = std::getenv("NUVIO_NOW");
    if (steps != nullptr && now != nullptr) {
        g_is_stepped = true;
        std::thread(follow, steps, now).detach();
    }
}

// ---- Waiting ------------------------------------------------------------------------------------

int own_eventfd() {
    thread_local struct Eventfd {
        int fd = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
        ~Eventfd() { close(fd); }
    } own;
    return own.fd;
}

int real_poll(pollfd* waits, nfds_t count, const timespec* timeout) {
    timespec left = timeout != nullptr ? *timeout : timespec{};
    return static_cast<int>(
        syscall(SYS_ppoll, waits, count, timeout != nullptr ? &left : nullptr, nullptr, 0));
}

// One entry more than `count` is there; what of the others is ready.
int poll_until(pollfd* waits, nfds_t count, int64_t until) {
    const int woken = own_eventfd();
    waits[count] = {woken, POLLIN, 0};
    {
        const std::lock_guard lock(g_mutex);
        g_waiting.push_back({until, woken, nullptr, -1});
    }
    const int ready = real_poll(waits, count + 1, nullptr);
    if (ready <= 0 || waits[count].revents == 0) {  // whom a step wakes it has forgotten
        forget([&](const Waiting& one) { return one.eventfd == woken; });
    }
    eventfd_t value = 0;
    eventfd_read(woken, &value);
    return ready > 0 && waits[count].revents != 0 ? ready - 1 : ready;
}

}  // namespace

void wait_for_step() {
    if (g_is_stepped) {
        pollfd woken{};
        poll_until(&woken, 0, g_now);
    }
}

SEEN_FROM_OUTSIDE int clock_gettime(clockid_t clock, timespec* time) noexcept {
    const bool is_own = clock == CLOCK_PROCESS_CPUTIME_ID || clock == CLOCK_THREAD_CPUTIME_ID;
    if (!g_is_stepped || is_own || clock < 0) {
        return static_cast<int>(syscall(SYS_clock_gettime, clock, time));
    }
    *time = timespec_of(g_now + calendar_ahead_of(clock));
    return 0;
}

SEEN_FROM_OUTSIDE int ppoll(pollfd* waits, nfds_t count, const timespec* timeout,
                            const sigset_t* /*mask*/) {
    const int64_t ns = timeout != nullptr ? ns_of(*timeout) : 0;
    if (!g_is_stepped || ns == 0 || count >= kMostPolled) {
        return real_poll(waits, count, timeout);
    }
    std::array<pollfd, kMostPolled> with_one;
    std::copy_n(waits, count, with_one.begin());
    const int ready = poll_until(with_one.data(), count, g_now + ns);
    std::copy_n(with_one.begin(), count, waits);
    return ready;
}

SEEN_FROM_OUTSIDE int poll(pollfd* waits, nfds_t count, int timeout_ms) {
    const timespec timeout = timespec_of(timeout_ms * kNsPerMs);
    return ppoll(waits, count, timeout_ms < 0 ? nullptr : &timeout, nullptr);
}

SEEN_FROM_OUTSIDE int __poll_chk(pollfd* waits, nfds_t count, int timeout_ms, size_t /*room*/) {
    return poll(waits, count, timeout_ms);
}

namespace {

int wait_for_events(int set, epoll_event* events, int room, int timeout_ms, const sigset_t* mask) {
    if (g_is_stepped && timeout_ms > 0) {
        std::array<pollfd, 2> waits{{{set, POLLIN, 0}}};
        poll_until(waits.data(), 1, g_now + timeout_ms * kNsPerMs);
        timeout_ms = 0;
    }
    constexpr size_t kKernelSetBytes = 8;
    return static_cast<int>(
        syscall(SYS_epoll_pwait, set, events, room, timeout_ms, mask, kKernelSetBytes));
}

}  // namespace

SEEN_FROM_OUTSIDE int epoll_pwait(int set, epoll_event* events, int room, int timeout_ms,
                                  const sigset_t* mask) {
    return wait_for_events(set, events, room, timeout_ms, mask);
}

SEEN_FROM_OUTSIDE int epoll_wait(int set, epoll_event* events, int room, int timeout_ms) {
    return wait_for_events(set, events, room, timeout_ms, nullptr);
}

SEEN_FROM_OUTSIDE int pthread_cond_clockwait(pthread_cond_t* cond, pthread_mutex_t* mutex,
                                             clockid_t clock, const timespec* until) {
    static auto* const real =
        reinterpret_cast<decltype(pthread_cond_clockwait)*>(next_of("pthread_cond_clockwait"));
    if (!g_is_stepped) {
        return real(cond, mutex, clock, until);
    }
    const int64_t ns = ns_of(*until) - calendar_ahead_of(clock);
    if (ns <= g_now) {
        return ETIMEDOUT;
    }
    {
        const std::lock_guard lock(g_mutex);
        g_waiting.push_back({ns, -1, cond, -1});
    }
    pthread_cond_wait(cond, mutex);
    if (ns <= g_now) {
        return ETIMEDOUT;
    }
    forget([&](const Waiting& one) { return one.cond == cond && one.until == ns; });
    return 0;
}

SEEN_FROM_OUTSIDE int timerfd_settime(int timer, int flags, const itimerspec* setting,
                                      itimerspec* before) noexcept {
    const int64_t until = ns_of(setting->it_value);
    if (!g_is_stepped || (flags & TFD_TIMER_ABSTIME) == 0) {
        return static_cast<int>(syscall(SYS_timerfd_settime, timer, flags, setting, before));
    }
    forget([&](const Waiting& one) { return one.timer == timer; });
    if (until == 0 || until <= g_now) {
        return set_timer(timer, until == 0 ? 0 : 1);
    }
    const std::lock_guard lock(g_mutex);
    g_waiting.push_back({until, -1, nullptr, timer});
    return set_timer(timer, 0);
}
