// Loaded into the daemon and its readers while their instructions are counted. What counts writes
// its sum where a process ends: a reader is asked to end instead of killed, and has no limits. What
// a call brings from the network is as much as was asked for. Of the daemon it counts from
// cost_begins to cost_ends, which are called where stepped_clock.cpp is told so, or
//
//   NUVIO_COUNT_FRAMES=FROM-TO   where that many have been written to the card; how many it were in
//                                between goes to the file NUVIO_COUNTED
#include "bench/counted.h"

#include <alsa/asoundlib.h>
#include <dlfcn.h>
#include <poll.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>

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

namespace {

struct Span {
    uint64_t from = UINT64_MAX, to = UINT64_MAX;
};

Span span_of(const char* variable) {
    Span span;
    if (const char* const text = std::getenv(variable)) {
        char* rest = nullptr;
        span.from = std::strtoull(text, &rest, 10);
        span.to = std::strtoull(rest + 1, nullptr, 10);
    }
    return span;
}

Span g_frames;
uint64_t g_written = 0, g_begun_at = 0;  // frames; the loop's thread

void note_counted(uint64_t frames) {
    if (std::FILE* const file = std::fopen(std::getenv("NUVIO_COUNTED"), "w")) {
        std::fprintf(file, "%llu\n", static_cast<unsigned long long>(frames));
        std::fclose(file);
    }
}

void note_written(uint64_t frames) {
    const uint64_t before = g_written;
    g_written += frames;
    if (before < g_frames.from && g_written >= g_frames.from) {
        g_begun_at = g_written;
        cost_begins();
    } else if (before < g_frames.to && g_written >= g_frames.to) {
        cost_ends();
        note_counted(g_written - g_begun_at);
    }
}

__attribute__((constructor)) void begin() {
    g_frames = span_of("NUVIO_COUNT_FRAMES");
}

}  // namespace

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

SEEN_FROM_OUTSIDE snd_pcm_sframes_t snd_pcm_writei(snd_pcm_t* pcm, const void* buffer,
                                                   snd_pcm_uframes_t size) {
    static auto* const real =
        reinterpret_cast<decltype(snd_pcm_writei)*>(next_of("snd_pcm_writei"));
    const snd_pcm_sframes_t written = real(pcm, buffer, size);
    if (written > 0) {
        note_written(static_cast<uint64_t>(written));
    }
    return written;
}

// How much has come by then is the kernel's business.
SEEN_FROM_OUTSIDE ssize_t recv(int socket, void* to, size_t size, int flags) {
    constexpr size_t kPiece = 4096;  // less is a head, or a packet
    constexpr int kPatienceMs = 1000;
    size_t done = 0;
    while (true) {
        const long got = syscall(SYS_recvfrom, socket, static_cast<char*>(to) + done, size - done,
                                 flags, nullptr, nullptr);
        done += got > 0 ? static_cast<size_t>(got) : 0;
        if (got <= 0 || done == size || done < kPiece) {
            return done > 0 ? static_cast<ssize_t>(done) : got;
        }
        pollfd more{socket, POLLIN, 0};
        timespec patience{kPatienceMs / 1000, 0};
        if (syscall(SYS_ppoll, &more, 1, &patience, nullptr, 0) <= 0) {
            return static_cast<ssize_t>(done);
        }
    }
}
