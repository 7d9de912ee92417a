// How loud a sound is to be, as its tags say: ReplayGain's, or R128's of Opus. Both lead to -18
// LUFS.
#pragma once

#include "reader/inside/input.h"
#include "reader/protocol.h"

namespace nuvio::reader {

// 0: no tag says so, or the loudness is its own. Of a peak that its tags tell no more is added than
// leads to full scale. What no tag could mean is cut: at -60 and +15 dB. Any bytes; leaves the
// input at its beginning, and may block on it. Not of a radio, nor where the length is not
// known; of a remote sound only by what stands in its first half MiB.
float gain_db(Input& input, Loudness wanted);

}  // namespace nuvio::reader
