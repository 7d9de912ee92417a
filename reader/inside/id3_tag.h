// The tag that stands before the sound of a file of whatever kind.
#pragma once

#include <cstdint>
#include <string_view>

#include "reader/inside/input.h"

namespace nuvio::reader {

// Where it ends; 0 where there is none. Any bytes.
inline uint64_t behind_id3(Input& input) {
    constexpr uint64_t kSize = 6, kHead = 10;
    uint64_t end = kHead;
    const uint64_t packed = number_at(input, kSize, 4, std::endian::big);  // of seven bits each
    for (unsigned shift = 0; shift < 4; ++shift) {
        end += (packed >> (8 * shift) & 0x7fU) << (7 * shift);
    }
    return bytes_at(input, 0, 3) == "ID3" ? end : 0;
}

}  // namespace nuvio::reader
