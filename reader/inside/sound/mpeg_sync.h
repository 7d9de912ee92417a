// Where a radio's MPEG audio begins: its server joins listeners anywhere in a frame.
#pragma once

#include <cstddef>
#include <string_view>

namespace nuvio::reader {

// Bytes that are sure to hold a few frames.
constexpr size_t kMpegHeadBytes = 8192;

// The offset of the first of three frames of one kind in a row; 0 where there are none, so that
// whoever reads on decides. Any bytes; pure.
size_t first_mpeg_frame(std::string_view bytes);

}  // namespace nuvio::reader
