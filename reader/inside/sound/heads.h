// What heads of files say, or leave out, that libsndfile makes nothing of.
//
// Any bytes. Leave the input at its beginning; may block on it.
#pragma once

#include <cstdint>
#include <optional>

#include "reader/inside/input.h"
#include "reader/protocol.h"

namespace nuvio::reader {

// Of a W64 file with an extensible head of floating-point samples, which libsndfile takes for
// integers: where the two bytes of its format stand, with which it is not. None of any other file.
std::optional<uint64_t> hidden_float_format(Input& input);
// What such a head has to say there.
inline constexpr uint16_t kFloatFormat = 3;

// Of a FLAC file of known length whose head does not count its frames: how many there are by the
// last block's head; none where that is not found.
std::optional<uint64_t> flac_frames(Input& input);

}  // namespace nuvio::reader
