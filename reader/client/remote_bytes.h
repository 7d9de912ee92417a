// Where the bytes of a remote file come from that a reader asks for.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>

#include "reader/protocol.h"

namespace nuvio::reader {

// Asked on the thread that asks the reader.
class RemoteBytes {
  public:
    virtual ~RemoteBytes() = default;
    // Endless: does not seek.
    virtual bool is_radio() const = 0;
    // Of a radio that has an end, and can be gone to by times.
    virtual std::optional<uint64_t> duration_us() const { return std::nullopt; }
    // Goes to the place where something begins that is to be opened anew, at or before the time.
    virtual Bytes go_to_time(uint64_t /*time_us*/) { return {}; }
    // Puts there what begins at `place`: at least `wanted` bytes, which is waited for, unless the
    // sound ends before, and as many more as are there, at most `room`.
    virtual Bytes read(uint64_t place, char* to, size_t wanted, size_t room) = 0;
};

}  // namespace nuvio::reader
