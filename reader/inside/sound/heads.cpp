#include "reader/inside/sound/heads.h"

#include <algorithm>
#include <bit>
#include <cstddef>
#include <string>
#include <string_view>

#include "reader/inside/flac_blocks.h"

namespace nuvio::reader {

namespace {

constexpr size_t kHeadBytes = 512;

uint8_t byte_at(std::string_view bytes, size_t at) {
    return at < bytes.size() ? static_cast<uint8_t>(bytes[at]) : 0;
}

// FLAC's: of the polynomial x^8 + x^2 + x + 1.
uint8_t checksum_of(std::string_view bytes) {
    uint8_t sum = 0;
    for (const char byte : bytes) {
        sum ^= static_cast<uint8_t>(byte);
        for (int bit = 0; bit < 8; ++bit) {
            sum = static_cast<uint8_t>(sum << 1 ^ ((sum & 0x80) != 0 ? 0x07 : 0));
        }
    }
    return sum;
}

// How many frames there are up to the end of the block whose head the bytes begin with; none where
// they are no head. `block_frames`: of each block but the last one, where blocks are counted.
std::optional<uint64_t> frames_with_block(std::string_view bytes, uint64_t block_frames) {
    constexpr int kMaxNumberBytes = 7;
    const bool is_of_frames = (byte_at(bytes, 1) & 1) != 0;
    const unsigned size_code = byte_at(bytes, 2) >> 4;
    const unsigned rate_code = byte_at(bytes, 2) & 0xf;
    const int ones = std::countl_one(byte_at(bytes, 4));
    if (byte_at(bytes, 0) != 0xff || (byte_at(bytes, 1) & 0xfe) != 0xf8 || size_code == 0 ||
        (byte_at(bytes, 3) & 1) != 0 || ones == 1 || ones > kMaxNumberBytes) {
        return std::nullopt;
    }
    size_t at = 5;  // behind the number's first byte; it is coded as UTF-8 codes a character
    uint64_t number = byte_at(bytes, 4) & (0x7fU >> ones);
    for (int i = 1; i < ones; ++i) {
        number = number << 6 | (byte_at(bytes, at++) & 0x3fU);
    }
    uint64_t frames = size_code == 1  ? 192
                      : size_code < 6 ? uint64_t{576} << (size_code - 2)
                                      : uint64_t{256} << (size_code & 7);
    if (size_code == 6 || size_code == 7) {
        frames = byte_at(bytes, at++);
        frames = size_code == 7 ? (frames << 8 | byte_at(bytes, at++)) + 1 : frames + 1;
    }
    at += rate_code == 12 ? 1 : rate_code == 13 || rate_code == 14 ? 2 : 0;
    if (at >= bytes.size() || checksum_of(bytes.substr(0, at)) != byte_at(bytes, at)) {
        return std::nullopt;
    }
    return (is_of_frames ? number : number * block_frames) + frames;
}

}  // namespace

std::optional<uint64_t> hidden_float_format(Input& input) {
    constexpr std::string_view kFormatChunk = "fmt \xf3\xac\xd3\x11";
    constexpr size_t kFormat = 24;     // from the chunk's beginning
    constexpr size_t kSubformat = 48;  // the same of an extensible head
    constexpr uint8_t kExtensible = 0xfe;
    const std::string head = bytes_at(input, 0, kHeadBytes);
    input.seek(0);
    const size_t chunk = head.find(kFormatChunk);
    const bool is_hidden = head.starts_with("riff") && chunk != std::string::npos &&
                           byte_at(head, chunk + kFormat) == kExtensible &&
                           byte_at(head, chunk + kSubformat) == kFloatFormat;
    return is_hidden ? std::optional(chunk + kFormat) : std::nullopt;
}

std::optional<uint64_t> flac_frames(Input& input) {
    constexpr uint64_t kLookedThrough = uint64_t{128} << 10U;
    const FlacHead head = flac_head(input);
    const uint64_t length = input.length().value_or(0);
    const uint64_t from = length - std::min(length, kLookedThrough);
    const bool is_flac = head.bits > 0 && !head.is_in_ogg;
    const std::string end = is_flac ? bytes_at(input, from, kLookedThrough) : "";
    input.seek(0);
    std::optional<uint64_t> frames;
    for (size_t at = end.size(); at > 0 && !frames; --at) {
        frames = frames_with_block(std::string_view(end).substr(at - 1), head.block_frames);
    }
    return frames;
}

}  // namespace nuvio::reader
