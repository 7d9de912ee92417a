// One process of a program of this project's that does a part of the work, from its start to its
// end.
//
// Which program: the one of its name in the folder that $NUVIO_READERS names, else beside this
// process's program, else where they are installed. Without NUVIO_READER_UNFILTERED in the
// environment it refuses to work where the kernel has no filter of system calls.
#pragma once

#include <sys/types.h>

#include <span>
#include <string>
#include <string_view>

#include "common/unique_fd.h"

namespace nuvio {

// One thread at a time.
class ChildProcess {
  public:
    // Processes at a time that were killed and are still there: their disk does not answer.
    static constexpr int kMaxLeftBehind = 16;

    // Starts it, with an argument where that is not null; has no socket, and says why in *error,
    // where that fails. What fails after that shows as the socket's end. Of the environment, which
    // may hold secrets, it gets what the loader, sanitizers and emulators read, and `shown`: names,
    // each with its "=".
    ChildProcess(const char* program, const char* option, std::string* error,
                 std::span<const std::string_view> shown = {});
    // Kills it.
    ~ChildProcess();
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    // Of packets; none: it could not be started. The other end is its descriptor 0, the only one
    // that it has beside standard error.
    const UniqueFd& socket() const { return m_socket; }

    struct End {
        std::string reason;       // "was ended by signal 11 (Segmentation fault)"
        bool is_by_what_it_read;  // and not by what this machine lacks
    };
    // Kills it, if it still lives, and waits for it, but not for its disk.
    End end();

  private:
    UniqueFd m_socket;
    pid_t m_process = -1;
};

}  // namespace nuvio
