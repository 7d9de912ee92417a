// What of samples no sum has in it, and yet goes to the card.
#include "local/track/verification.h"

#include <gtest/gtest.h>

#include <vector>

namespace local_core {
namespace {

// Two frames of silence, of which one bit is set or none.
template <typename Sample>
Verdict with_bit(uint32_t bits, uint32_t channels_inside, int bit, bool with_all = true) {
    constexpr bool kIsDeep = sizeof(Sample) == sizeof(int32_t);
    TrackInfo info{};
    info.format = {44100, 2,
                   kIsDeep ? NUV_AUDIO_SAMPLE_FORMAT_24_BIT : NUV_AUDIO_SAMPLE_FORMAT_16_BIT};
    info.inside = info.format;
    info.inside.channel_count = channels_inside;
    info.frame_bytes = 2 * sizeof(Sample);
    info.frame_count = info.sum.frames = 2;
    info.sum.bits = bits;
    const std::vector<uint8_t> silence(2 * channels_inside * bits / 8);
    MD5_CTX sum;
    MD5Init(&sum);
    MD5Update(&sum, silence.data(), silence.size());
    MD5Final(info.sum.md5, &sum);
    std::vector<std::byte> samples(2 * info.frame_bytes);
    if (bit >= 0) {  // of the second channel's last sample
        samples[3 * sizeof(Sample) + static_cast<size_t>(bit) / 8] |= std::byte{1} << (bit % 8);
    }
    Verification verification(info, with_all);
    verification.add(samples.data(), samples.size());
    return verification.conclude(true);
}

TEST(Verification, WhatIsAboveCdQualityHasToBeAskedFor) {
    EXPECT_EQ(with_bit<int16_t>(16, 2, -1, false), Verdict::verified);
    EXPECT_EQ(with_bit<int32_t>(24, 2, -1, false), Verdict::too_much);
}

TEST(Verification, EveryBitThatWasTakenCounts) {
    for (int bit = -1; bit < 32; ++bit) {
        SCOPED_TRACE(bit);
        const Verdict wanted = bit < 0 ? Verdict::verified : Verdict::differs;
        EXPECT_EQ(with_bit<int32_t>(24, 2, bit), wanted);
        EXPECT_EQ(with_bit<int32_t>(24, 1, bit), wanted);
        if (bit < 16) {
            EXPECT_EQ(with_bit<int16_t>(16, 2, bit), wanted);
            EXPECT_EQ(with_bit<int16_t>(8, 2, bit), wanted);
            EXPECT_EQ(with_bit<int16_t>(16, 1, bit), wanted);
        }
    }
}

}  // namespace
}  // namespace local_core
