// Threads that may be left behind: whoever starts one waits for its work, if at all, and not for
// it.
#pragma once

#include <pthread.h>
#include <signal.h>

#include <thread>
#include <utility>

namespace nuvio {

// Runs the work on a thread of this name (at most 15 bytes). It gets no signals, which are the
// process's business, but for those of its own faults: whoever reports them has to be called.
// Throws std::system_error when there is no thread to be had.
template <typename Work>
void start_detached(const char* name, Work work) {
    sigset_t held;
    sigset_t before;
    sigfillset(&held);
    for (const int fault : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGABRT}) {
        sigdelset(&held, fault);
    }
    pthread_sigmask(SIG_SETMASK, &held, &before);
    struct Restore {
        const sigset_t& mask;
        ~Restore() { pthread_sigmask(SIG_SETMASK, &mask, nullptr); }
    } const restore{before};
    std::thread thread(std::move(work));
    pthread_setname_np(thread.native_handle(), name);
    thread.detach();
}

}  // namespace nuvio
