// Loaded into the daemon and its readers while their instructions are counted. What counts writes
// its sum where a process ends: a reader is asked to end instead of killed, and has no limits. What
// a call brings from the network is as much as was asked for. Of the daemon it counts from
// cost_begins to cost_ends, which are called where stepped_clock.cpp is told so.
#include "bench/counted.h"

#include <dlfcn.h>
#include <poll.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>

SEEN_FROM_OUTSIDE __attribute__((noinline)) void cost_begins() {
    asm volatile("");
}
SEEN_FROM_OUTSIDE __attribute__((noinline)) void cost_ends() {
    asm volatile("");
}

void* next_of(const char* name) {
    return dlsym(RTLD_NEXT, name);
}

void mark_cost(int64_t mark) {
    if (mark == 1) {
        cost_begins();
    } else if (mark == 2) {
        cost_ends();
    }
}

// Waits for its end: it is not to come by another one, its socket's, meanwhile.
SEEN_FROM_OUTSIDE int kill(pid_t process, int number) noexcept {
    if (number != SIGKILL) {
        return static_cast<int>(syscall(SYS_kill, process, number));
    }
    const auto sent = static_cast<int>(syscall(SYS_kill, process, SIGTERM));
    siginfo_t end{};
    waitid(P_PID, static_cast<id_t>(process), &end, WEXITED | WNOWAIT);
    return sent;
}

SEEN_FROM_OUTSIDE int setrlimit(__rlimit_resource_t /*what*/, const rlimit* /*limits*/) noexcept {
    return 0;
}

// How much has come by then is the kernel's business, and whether the network or who uses up what
// it brought is ahead the scheduler's: a piece is a whole one, and comes while nobody does
// anything.
SEEN_FROM_OUTSIDE ssize_t recv(int socket, void* to, size_t size, int flags) {
    constexpr size_t kPiece = size_t{32} * 1024;  // who asks for less waits for a head, or a packet
    constexpr int kPatienceMs = 1000;
    size_t done = 0;
    while (true) {
        const long got = syscall(SYS_recvfrom, socket, static_cast<char*>(to) + done, size - done,
                                 flags, nullptr, nullptr);
        done += got > 0 ? static_cast<size_t>(got) : 0;
        if (done == 0 || size < kPiece) {
            return got;
        }
        pollfd more{socket, POLLIN, 0};
        timespec patience{kPatienceMs / 1000, 0};
        if (got <= 0 || done == size || syscall(SYS_ppoll, &more, 1, &patience, nullptr, 0) <= 0) {
            wait_for_step();
            return static_cast<ssize_t>(done);
        }
    }
}
