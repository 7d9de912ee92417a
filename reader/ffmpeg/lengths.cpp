#include "reader/ffmpeg/lengths.h"

namespace nuvio::reader {

uint64_t dsd_bytes(Input& input) {
    constexpr uint32_t kDsd = 0x44534420;   // "DSD ": a DSF file, or the sound in a DFF file
    constexpr uint32_t kForm = 0x46524d38;  // "FRM8": a DFF file
    constexpr int kMaxChunks = 64;
    constexpr uint64_t kChunkHead = 12;
    const uint64_t kind = number_at(input, 0, 4, std::endian::big);
    uint64_t bytes = 0;
    if (kind == kDsd) {
        const uint64_t channels = number_at(input, 52, 4, std::endian::little);
        bytes = channels * (number_at(input, 64, 8, std::endian::little) / 8);
    }
    uint64_t at = kChunkHead + 4;
    for (int chunk = 0; kind == kForm && chunk < kMaxChunks && bytes == 0; ++chunk) {
        const uint64_t size = number_at(input, at + 4, 8, std::endian::big);
        bytes = number_at(input, at, 4, std::endian::big) == kDsd ? size : 0;
        at += kChunkHead + size + size % 2;
    }
    input.seek(0);
    return bytes;
}

uint64_t edit_rate(Input& input) {
    constexpr uint32_t kMovie = 0x6d6f6f76;  // "moov", which begins with its head
    constexpr uint32_t kHead = 0x6d766864;   // "mvhd"
    constexpr int kMaxAtoms = 64;
    uint64_t rate = 0;
    uint64_t at = 0;
    for (int atom = 0; atom < kMaxAtoms && rate == 0; ++atom) {
        const uint64_t size = number_at(input, at, 4, std::endian::big);
        const uint64_t kind = number_at(input, at + 4, 4, std::endian::big);
        if (kind == kHead) {
            const bool is_long = number_at(input, at + 8, 1, std::endian::big) == 1;
            rate = number_at(input, at + (is_long ? 28 : 20), 4, std::endian::big);
        }
        at += kind == kMovie ? 8 : size == 1 ? number_at(input, at + 8, 8, std::endian::big) : size;
        if (size == 0) {
            break;
        }
    }
    input.seek(0);
    return rate;
}

}  // namespace nuvio::reader
