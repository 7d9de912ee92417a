// Frames of MPEG audio, layer III. A radio's server joins listeners anywhere in one.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

namespace nuvio::reader {

// Bytes that are sure to hold a few frames.
constexpr size_t kMpegHeadBytes = 8192;

// By its header.
struct MpegFrame {
    uint32_t bytes = 0;     // with the header; 0: there is no such frame
    uint32_t samples = 0;   // of each channel
    uint32_t rate_hz = 0;   // of samples
    uint32_t bit_rate = 0;  // bits a second
};
MpegFrame mpeg_frame(uint32_t header);

// The four bytes there, as a frame begins with them.
uint32_t mpeg_header_at(std::string_view bytes, size_t at);

// The offset of the first of three frames of one kind in a row; 0 where there are none, so that
// whoever reads on decides. Any bytes; pure.
size_t first_mpeg_frame(std::string_view bytes);

// How many samples of each channel a byte makes, by the frames that follow the first one; 0 where
// there are none. Any bytes; pure.
double mpeg_samples_a_byte(std::string_view bytes);

}  // namespace nuvio::reader
