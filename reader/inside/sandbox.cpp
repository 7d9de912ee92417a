#include "reader/inside/sandbox.h"

#include <fcntl.h>
#include <seccomp.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "common/files/files.h"
#include "common/process/filter_rule.h"
#include "common/process/give_way.h"
#include "common/released_by.h"
#include "common/unique_fd.h"

#ifdef NUVIO_SANITIZED
// What a sanitizer finds ends the process as it would without one: by a signal. No piece of memory
// is as large as all that a reader may have.
extern "C" __attribute__((visibility("default"))) const char* __asan_default_options() {
    return "abort_on_error=1:max_allocation_size_mb=64:allocator_may_return_null=1";
}
extern "C" __attribute__((visibility("default"))) const char* __tsan_default_options() {
    return "abort_on_error=1";
}
#endif

namespace nuvio::reader {

namespace {

#ifdef NUVIO_SANITIZED
constexpr bool kIsSanitized = true;  // its runtime has terabytes of address space, and reports
#else
constexpr bool kIsSanitized = false;
#endif

constexpr rlim_t kMemoryBytes = rlim_t{64} << 20U;  // address space, beside the libraries'
constexpr rlim_t kStackBytes = rlim_t{1} << 20U;
constexpr rlim_t kMaxFiles = 8;

struct Limit {
    __rlimit_resource_t what;
    rlim_t most;
};
constexpr Limit kLimits[] = {
    {RLIMIT_STACK, kStackBytes}, {RLIMIT_FSIZE, kIsSanitized ? RLIM_INFINITY : 0},
    {RLIMIT_NPROC, 0},           {RLIMIT_CORE, 0},
    {RLIMIT_NOFILE, kMaxFiles},
};

// What the allocator, the standard library and the way of a job need.
constexpr int kAllowed[] = {
    SCMP_SYS(read),          SCMP_SYS(pread64),
    SCMP_SYS(lseek),         SCMP_SYS(_llseek),
    SCMP_SYS(recvmsg),       SCMP_SYS(sendmsg),
    SCMP_SYS(close),         SCMP_SYS(brk),
    SCMP_SYS(munmap),        SCMP_SYS(mremap),
    SCMP_SYS(madvise),       SCMP_SYS(futex),
    SCMP_SYS(futex_time64),  SCMP_SYS(getrandom),
    SCMP_SYS(clock_gettime), SCMP_SYS(clock_gettime64),
    SCMP_SYS(setitimer),     SCMP_SYS(rt_sigreturn),
    SCMP_SYS(exit_group),    SCMP_SYS(restart_syscall),
    SCMP_SYS(sysinfo),       SCMP_SYS(gettimeofday),
    SCMP_SYS(time),
};
// Memory, but none that can be executed.
constexpr int kAllowedUnlessExecutable[] = {SCMP_SYS(mmap), SCMP_SYS(mmap2), SCMP_SYS(mprotect)};
// What libraries try, and go on without: libsndfile looks for a file beside the one it reads, the
// standard library at what its output leads to, FFmpeg for processors.
constexpr int kRefused[] = {
    SCMP_SYS(open),
    SCMP_SYS(openat),
    SCMP_SYS(stat),
    SCMP_SYS(stat64),
    SCMP_SYS(newfstatat),
    SCMP_SYS(fstat),
    SCMP_SYS(fstat64),
    SCMP_SYS(fstatat64),
    SCMP_SYS(statx),
    SCMP_SYS(ioctl),
    SCMP_SYS(sched_getaffinity),
};
// What a sanitizer's runtime does besides.
constexpr int kAllowedToSanitizer[] = {
    SCMP_SYS(write),        SCMP_SYS(getpid),      SCMP_SYS(gettid),
    SCMP_SYS(sched_yield),  SCMP_SYS(sigaltstack), SCMP_SYS(rt_sigprocmask),
    SCMP_SYS(rt_sigaction), SCMP_SYS(nanosleep),   SCMP_SYS(clock_nanosleep),
    SCMP_SYS(pipe2),
};

constexpr scmp_arg_cmp kNotExecutable{2, SCMP_CMP_MASKED_EQ, PROT_EXEC, 0};

// Which both lead nowhere: libraries complain of what they read.
bool allow_output(scmp_filter_ctx filter) {
    return std::ranges::all_of(std::array{STDOUT_FILENO, STDERR_FILENO}, [&](int output) {
        return add_rule(filter, SCMP_ACT_ALLOW, SCMP_SYS(write),
                        {{0, SCMP_CMP_EQ, static_cast<scmp_datum_t>(output), 0}});
    });
}

bool add_rules(scmp_filter_ctx filter) {
    for (const int call : kAllowed) {
        if (!add_rule(filter, SCMP_ACT_ALLOW, call)) {
            return false;
        }
    }
    for (const int call : kAllowedUnlessExecutable) {
        if (!add_rule(filter, SCMP_ACT_ALLOW, call, {kNotExecutable})) {
            return false;
        }
    }
    for (const int call : kRefused) {
        if (!add_rule(filter, SCMP_ACT_ERRNO(EACCES), call)) {
            return false;
        }
    }
    if (!kIsSanitized && !allow_output(filter)) {
        return false;
    }
    if (kIsSanitized) {
        for (const int call : kAllowedToSanitizer) {
            if (!add_rule(filter, SCMP_ACT_ALLOW, call)) {
                return false;
            }
        }
    }
    return true;
}

bool limit(const Limit& row, std::string* error) {
    const rlimit both{row.most, row.most};
    if (setrlimit(row.what, &both) == 0) {
        return true;
    }
    *error = std::string("no limits: ") + std::strerror(errno);
    return false;
}

// What the program and its libraries take, in bytes.
rlim_t address_space() {
    const FileText text = read_file(UniqueFd(open("/proc/self/statm", O_RDONLY | O_CLOEXEC)), 64);
    return std::strtoull(text.text.c_str(), nullptr, 10) * static_cast<rlim_t>(getpagesize());
}

bool set_limits(std::string* error) {
    for (const Limit& row : kLimits) {
        if (!limit(row, error)) {
            return false;
        }
    }
    return kIsSanitized || limit({RLIMIT_AS, address_space() + kMemoryBytes}, error);
}

void set_timer(__itimer_which_t which, std::chrono::seconds time) {
    const itimerval once{{0, 0}, {static_cast<time_t>(time.count()), 0}};
    setitimer(which, &once, nullptr);
}

}  // namespace

bool shut_in(bool filtered, std::string* error) {
    give_way_where_memory_is_short();
    if (prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0 || prctl(PR_SET_DUMPABLE, 0, 0, 0, 0) != 0) {
        *error = std::strerror(errno);
        return false;
    }
    if (!filtered) {
        return set_limits(error);
    }
    const std::unique_ptr<void, ReleasedBy<seccomp_release>> filter(
        seccomp_init(SCMP_ACT_KILL_PROCESS));
    if (filter == nullptr || !add_rules(filter.get()) || !set_limits(error)) {
        *error = error->empty() ? "no filter of system calls can be made" : *error;
        return false;
    }
    if (const int failure = seccomp_load(filter.get()); failure != 0) {
        *error =
            std::string("this kernel has no filter of system calls: ") + std::strerror(-failure);
        return false;
    }
    return true;
}

// The signals of both end the process.
Clock::Clock(const JobTimes& times) : m_times(times) {
    if (m_times.longest.count() > 0) {
        set_timer(ITIMER_REAL, m_times.longest);
    }
    if (m_times.working.count() > 0) {
        set_timer(ITIMER_PROF, m_times.working);
    }
}

Clock::~Clock() {
    if (m_times.longest.count() > 0) {
        set_timer(ITIMER_REAL, {});
    }
    if (m_times.working.count() > 0) {
        set_timer(ITIMER_PROF, {});
    }
}

}  // namespace nuvio::reader
