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

// What a frame begins with. As many bytes must be there.
constexpr size_t kMpegHeaderBytes = 4;
uint32_t mpeg_header_at(std::string_view bytes, size_t at);

// Of a header: version, layer and rate, which stay where bit rate and padding change; and bit rate.
constexpr uint32_t kMpegKind = 0xfffe0c00;
constexpr uint32_t kMpegBitRate = 0xf000;

// Whether so many frames follow each other from the first of these bytes on whose headers are like
// `kind` in what `mask` covers. Any bytes; pure.
bool mpeg_frames_follow(std::string_view bytes, uint32_t kind, uint32_t mask, int frames);

// The offset of the first of three frames of one kind in a row; 0 where there are none, so that
// whoever reads on decides. Any bytes; pure.
size_t first_mpeg_frame(std::string_view bytes);

// How many samples of each channel a byte makes, by the frames that follow the first one; 0 where
// there are none. Any bytes; pure.
double mpeg_samples_a_byte(std::string_view bytes);

}  // namespace nuvio::reader
