// Where the pieces of a chained Ogg file begin: of a recorded radio, or of files that were joined.
#pragma once

#include <cstdint>
#include <vector>

#include "reader/inside/input.h"

namespace nuvio::reader {

// In bytes; without a page that was cut off, or a tag behind the last one.
struct OggPiece {
    uint64_t begin, end;
};

// In their order; none of an input that is no Ogg, or that has no known length. Pieces whose
// streams have one number, as they must not, are not told apart. Looks at some pages alone: of a
// file of one piece at the first and the last ones. Leaves the input at its beginning.
std::vector<OggPiece> ogg_pieces(Input& input);

}  // namespace nuvio::reader
