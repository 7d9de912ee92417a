// What the bytes of a file say of its length where libavformat guesses or rounds it.
//
// One thread; reading blocks on the input, which is left at its beginning. Bytes that are no such
// file have none.
#pragma once

#include <cstdint>

#include "reader/inside/input.h"

namespace nuvio::reader {

// The bytes of sound in a file of DSD, whose length libavformat only guesses; 0 when it is none.
uint64_t dsd_bytes(Input& input);

// The ticks a second of an MPEG-4 file's clock, to which the lengths of its edits are rounded; 0
// when it is none.
uint64_t edit_rate(Input& input);

}  // namespace nuvio::reader
