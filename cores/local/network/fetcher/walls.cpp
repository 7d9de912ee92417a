#include "local/network/fetcher/walls.h"

#include <fcntl.h>
#include <sched.h>
#include <sys/prctl.h>
#include <sys/resource.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>
#include <vector>

#include "common/process/filter_rule.h"
#include "common/process/give_way.h"
#include "common/released_by.h"

namespace local_core {

namespace {

using nuvio::add_rule;

// What makes or changes files, other processes or memory of theirs. All else is allowed: libcurl,
// OpenSSL and what the system looks names up by are of many versions.
constexpr int kRefused[] = {
    SCMP_SYS(execve),      SCMP_SYS(execveat),     SCMP_SYS(fork),
    SCMP_SYS(vfork),       SCMP_SYS(ptrace),       SCMP_SYS(process_vm_readv),
    SCMP_SYS(pidfd_getfd), SCMP_SYS(kill),         SCMP_SYS(process_vm_writev),
    SCMP_SYS(creat),       SCMP_SYS(truncate),     SCMP_SYS(truncate64),
    SCMP_SYS(unlink),      SCMP_SYS(unlinkat),     SCMP_SYS(rename),
    SCMP_SYS(renameat),    SCMP_SYS(renameat2),    SCMP_SYS(mkdir),
    SCMP_SYS(mkdirat),     SCMP_SYS(rmdir),        SCMP_SYS(link),
    SCMP_SYS(linkat),      SCMP_SYS(symlink),      SCMP_SYS(symlinkat),
    SCMP_SYS(mknod),       SCMP_SYS(mknodat),      SCMP_SYS(chmod),
    SCMP_SYS(fchmod),      SCMP_SYS(fchmodat),     SCMP_SYS(chown),
    SCMP_SYS(fchown),      SCMP_SYS(lchown),       SCMP_SYS(fchownat),
    SCMP_SYS(setxattr),    SCMP_SYS(lsetxattr),    SCMP_SYS(fsetxattr),
    SCMP_SYS(utimensat),   SCMP_SYS(listen),       SCMP_SYS(accept),
    SCMP_SYS(accept4),     SCMP_SYS(memfd_create), SCMP_SYS(bpf),
    SCMP_SYS(userfaultfd), SCMP_SYS(setpriority),  SCMP_SYS(perf_event_open),
};
// Whose arguments a filter can't see; what calls them has another way.
constexpr int kUnknown[] = {SCMP_SYS(clone3), SCMP_SYS(openat2), SCMP_SYS(io_uring_setup)};

scmp_arg_cmp has_bits(unsigned argument, scmp_datum_t mask, scmp_datum_t bits) {
    return {argument, SCMP_CMP_MASKED_EQ, mask, bits};
}

bool add_rules(scmp_filter_ctx filter) {
    constexpr uint32_t kNo = SCMP_ACT_ERRNO(EPERM);
    bool is_made =
        std::ranges::all_of(kRefused, [filter](int call) { return add_rule(filter, kNo, call); });
    is_made = is_made && std::ranges::all_of(kUnknown, [filter](int call) {
                  return add_rule(filter, SCMP_ACT_ERRNO(ENOSYS), call);
              });
    for (const scmp_datum_t bit : {O_WRONLY, O_RDWR, O_CREAT}) {
        is_made = is_made && add_rule(filter, kNo, SCMP_SYS(open), {has_bits(1, bit, bit)}) &&
                  add_rule(filter, kNo, SCMP_SYS(openat), {has_bits(2, bit, bit)});
    }
    return is_made && add_rule(filter, kNo, SCMP_SYS(clone), {has_bits(0, CLONE_THREAD, 0)});
}

}  // namespace

bool shut_in_fetcher(bool filtered, std::string* error) {
    nuvio::give_way_where_memory_is_short();
    const rlimit none{0, 0};
    if (prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0 || prctl(PR_SET_DUMPABLE, 0, 0, 0, 0) != 0 ||
        setrlimit(RLIMIT_CORE, &none) != 0) {
        *error = std::strerror(errno);
        return false;
    }
    if (!filtered) {
        return true;
    }
    const std::unique_ptr<void, nuvio::ReleasedBy<seccomp_release>> filter(
        seccomp_init(SCMP_ACT_ALLOW));
    if (filter == nullptr || !add_rules(filter.get())) {
        *error = "no filter of system calls can be made";
        return false;
    }
    if (const int failure = seccomp_load(filter.get()); failure != 0) {
        *error =
            std::string("this kernel has no filter of system calls: ") + std::strerror(-failure);
        return false;
    }
    return true;
}

}  // namespace local_core
