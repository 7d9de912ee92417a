// One process of a reader, from its start to its end.
//
// Which program: the one of its name in the folder that $NUVIO_READERS names, else beside this
// process's program, else where they are installed. Without NUVIO_READER_UNFILTERED in the
// environment it refuses to work where the kernel has no filter of system calls.
#pragma once

#include <sys/types.h>

#include <string>

#include "common/unique_fd.h"

namespace nuvio::reader {

// One thread at a time.
class ReaderProcess {
  public:
    // Processes at a time that were killed and are still there: their disk does not answer.
    static constexpr int kMaxLeftBehind = 16;

    // Starts it, with an argument where that is not null; has no socket, and says why in *error,
    // where that fails. What fails after that shows as the socket's end.
    ReaderProcess(const char* program, const char* option, std::string* error);
    // Kills it.
    ~ReaderProcess();
    ReaderProcess(const ReaderProcess&) = delete;
    ReaderProcess& operator=(const ReaderProcess&) = delete;

    // Of packets; none: it could not be started.
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

}  // namespace nuvio::reader
