#include "reader/inside/sound/mpeg_sync.h"

#include <algorithm>
#include <array>
#include <cstdint>

namespace nuvio::reader {

namespace {

constexpr int kFramesThatAreSound = 3;

}  // namespace

MpegFrame mpeg_frame(uint32_t header) {
    // By version (2.5, reserved, 2, 1), in Hz; by bit-rate index, in kbit/s.
    constexpr std::array<uint32_t, 4> kFirstRates = {11025, 0, 22050, 44100};
    constexpr std::array<uint32_t, 16> kBitRates1 = {0,   32,  40,  48,  56,  64,  80,  96,
                                                     112, 128, 160, 192, 224, 256, 320, 0};
    constexpr std::array<uint32_t, 16> kBitRates2 = {0,  8,  16, 24,  32,  40,  48,  56,
                                                     64, 80, 96, 112, 128, 144, 160, 0};
    constexpr uint32_t kSync = 0xffe00000;
    constexpr uint32_t kLayer3 = 1;
    constexpr uint32_t kVersion1 = 3;
    const uint32_t version = header >> 19 & 3;
    const uint32_t rate_index = header >> 10 & 3;
    if ((header & kSync) != kSync || (header >> 17 & 3) != kLayer3 || rate_index == 3 ||
        kFirstRates[version] == 0) {
        return {};
    }
    // 44100, 48000, 32000 and their halves and quarters.
    constexpr std::array<uint32_t, 3> kPer147 = {147, 160, 0};
    const uint32_t rate = rate_index == 2 ? kFirstRates[version] / 441 * 320
                                          : kFirstRates[version] / 147 * kPer147[rate_index];
    const auto& bit_rates = version == kVersion1 ? kBitRates1 : kBitRates2;
    const uint32_t bit_rate = bit_rates[header >> 12 & 15] * 1000;
    const uint32_t samples = version == kVersion1 ? 1152 : 576;
    if (bit_rate == 0) {
        return {};
    }
    return {samples / 8 * bit_rate / rate + (header >> 9 & 1), samples, rate, bit_rate};
}

uint32_t mpeg_header_at(std::string_view bytes, size_t at) {
    uint32_t header = 0;
    for (size_t i = 0; i < kMpegHeaderBytes; ++i) {
        header = header << 8 | static_cast<uint8_t>(bytes[at + i]);
    }
    return header;
}

bool mpeg_frames_follow(std::string_view bytes, uint32_t kind, uint32_t mask, int frames) {
    for (int frame = 0; frame < frames; ++frame) {
        if (bytes.size() < kMpegHeaderBytes || (mpeg_header_at(bytes, 0) & mask) != (kind & mask)) {
            return false;
        }
        const size_t length = mpeg_frame(mpeg_header_at(bytes, 0)).bytes;
        if (length == 0) {
            return false;
        }
        bytes.remove_prefix(std::min(length, bytes.size()));
    }
    return true;
}

size_t first_mpeg_frame(std::string_view bytes) {
    for (size_t at = 0; at + kMpegHeaderBytes <= bytes.size(); ++at) {
        if (mpeg_frames_follow(bytes.substr(at), mpeg_header_at(bytes, at), kMpegKind,
                               kFramesThatAreSound)) {
            return at;
        }
    }
    return 0;
}

double mpeg_samples_a_byte(std::string_view bytes) {
    const size_t first = first_mpeg_frame(bytes);
    size_t at = first;
    uint64_t samples = 0;
    while (at + 4 <= bytes.size()) {
        const MpegFrame frame = mpeg_frame(mpeg_header_at(bytes, at));
        if (frame.bytes == 0) {
            break;
        }
        at += frame.bytes;
        samples += frame.samples;
    }
    return at > first ? static_cast<double>(samples) / static_cast<double>(at - first) : 0;
}

}  // namespace nuvio::reader
