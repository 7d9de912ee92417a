// What goes to a reader: packets with descriptors, and memory that both see. Any thread.
#pragma once

#include <cstddef>

#include "common/unique_fd.h"
#include "reader/protocol.h"

namespace nuvio::reader {

// Memory that none of the two can make smaller: what is mapped of it stays there. None, with errno
// set, where there is none.
UniqueFd shared_memory(size_t bytes);

// False where the reader is gone, or has not taken the packets before this one: it is not waited
// for. Those of the descriptors that are there go with it.
bool send(int socket, const Request& request, const UniqueFd& file = {},
          const UniqueFd& memory = {});

}  // namespace nuvio::reader
