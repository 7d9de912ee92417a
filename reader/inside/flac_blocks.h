// What stands before the sound of a FLAC file: blocks, the first of which describes the sound.
//
// Any bytes. One thread; reading blocks on the input, whose place is anywhere afterwards.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <vector>

#include "reader/inside/input.h"
#include "reader/protocol.h"

namespace nuvio::reader {

// Nothing of any other file.
struct FlacHead {
    uint32_t rate_hz = 0;
    uint32_t bits = 0;          // of a sample
    uint64_t frames = 0;        // 0: not said
    uint64_t block_frames = 0;  // of the shortest block of sound but the last one
    bool is_in_ogg = false;
    SampleSum sum{};  // none where the head has none
};
FlacHead flac_head(Input& input);

enum class FlacBlockType : uint8_t { comments = 4, sheet = 5 };

struct FlacBlock {
    FlacBlockType type;
    uint64_t place;  // of its content
    size_t size;     // as it says
};
// All of them, of whatever type; none in Ogg. Their contents are not read.
std::vector<FlacBlock> flac_blocks(Input& input);

}  // namespace nuvio::reader
