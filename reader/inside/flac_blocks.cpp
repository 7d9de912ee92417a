#include "reader/inside/flac_blocks.h"

#include <algorithm>
#include <iterator>
#include <string>
#include <string_view>

#include "reader/inside/id3_tag.h"

namespace nuvio::reader {

namespace {

constexpr std::string_view kWord = "fLaC";
constexpr size_t kBlockHead = 4;

// Of a file that is none.
constexpr uint64_t kNowhere = UINT64_MAX;

uint64_t place_of_word(Input& input, bool is_in_ogg) {
    constexpr uint64_t kInOgg = 37;  // of a first page with a packet of FLAC's
    const uint64_t place = is_in_ogg ? kInOgg : behind_id3(input);
    return bytes_at(input, place, kWord.size()) == kWord ? place : kNowhere;
}

}  // namespace

// The first block has two sizes each of a block and its bytes, 20 bits of rate, 3 of channels, 5 of
// a sample's bits, 36 of frames, and the sum.
FlacHead flac_head(Input& input) {
    constexpr uint64_t kRate = 10, kSum = 18;
    FlacHead head;
    head.is_in_ogg = bytes_at(input, 0, kWord.size()) == "OggS";
    const uint64_t word = place_of_word(input, head.is_in_ogg);
    if (word == kNowhere) {
        return {};
    }
    const uint64_t block = word + kWord.size() + kBlockHead;
    const std::string sum = bytes_at(input, block + kSum, SampleSum::kBytes);
    const uint64_t packed = number_at(input, block + kRate, 8, std::endian::big);
    if (sum.size() < SampleSum::kBytes) {
        return {};
    }
    head.block_frames = number_at(input, block, 2, std::endian::big);
    head.rate_hz = static_cast<uint32_t>(packed >> 44U);
    head.bits = static_cast<uint32_t>(packed >> 36U & 0x1fU) + 1;
    head.frames = packed & 0xf'ffff'ffffU;
    if (std::ranges::any_of(sum, [](char byte) { return byte != 0; })) {
        head.sum.bits = head.bits;
        head.sum.frames = head.frames;
        std::ranges::copy(sum, std::begin(head.sum.md5));
    }
    return head;
}

std::vector<FlacBlock> flac_blocks(Input& input) {
    constexpr size_t kMostBlocks = 128;
    constexpr uint64_t kIsLast = 0x80;
    const uint64_t word = place_of_word(input, false);
    std::vector<FlacBlock> blocks;
    bool is_last = word == kNowhere;
    for (uint64_t place = word + kWord.size(); !is_last && blocks.size() < kMostBlocks;) {
        const uint64_t head = number_at(input, place, kBlockHead, std::endian::big);
        place += kBlockHead;
        blocks.push_back({static_cast<FlacBlockType>(head >> 24U & ~kIsLast), place,
                          static_cast<size_t>(head & 0xff'ffffU)});
        place += blocks.back().size;
        is_last = (head >> 24U & kIsLast) != 0 || head == 0;
    }
    return blocks;
}

}  // namespace nuvio::reader
