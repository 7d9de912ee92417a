// Where the bytes of a remote file come from that a reader asks for.
#pragma once

#include <cstddef>
#include <cstdint>

#include "reader/protocol.h"

namespace nuvio::reader {

// Asked on the thread that asks the reader.
class RemoteBytes {
  public:
    virtual ~RemoteBytes() = default;
    // Endless: does not seek.
    virtual bool is_radio() const = 0;
    // Puts there what begins at `place`: at least `wanted` bytes, which is waited for, unless the
    // sound ends before, and as many more as are there, at most `room`.
    virtual Bytes read(uint64_t place, char* to, size_t wanted, size_t room) = 0;
};

}  // namespace nuvio::reader
