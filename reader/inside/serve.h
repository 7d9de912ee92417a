// The reader's way through its jobs: shut in, one request after the other until the socket's end.
#pragma once

#include "common/unique_fd.h"
#include "reader/protocol.h"

namespace nuvio::reader {

// What answers, by job; null where this program is not asked for it. Each is called after the walls
// are up; std::bad_alloc is answered as Status::too_big.
struct Jobs {
    void (*tags)(const UniqueFd& file, TagsAnswer* answer) = nullptr;
    // `picture`: kMaxPictureBytes of shared memory.
    void (*picture)(const UniqueFd& file, char* picture, PictureAnswer* answer) = nullptr;
    void (*scaled_picture)(const UniqueFd& file, uint32_t edge, char* picture,
                           PictureAnswer* answer) = nullptr;
};

// The program: its exit status, 0 when the socket has ended, another one where this machine does
// not let it work. `--unfiltered` among the arguments stands for a kernel without a filter of
// system calls. What it can't do it says on standard error.
int serve(int argc, char** argv, const Jobs& jobs);

}  // namespace nuvio::reader
