// Samples of FFmpeg's frames as they are delivered. Pure; any thread.
#pragma once

extern "C" {
#include <libavutil/frame.h>
#include <libavutil/samplefmt.h>
}

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstring>

namespace nuvio::reader::libav {

template <int bits>
int32_t to_integer(double sample) {
    constexpr double kScale = int32_t{1} << (bits - 1);
    return std::isnan(sample)
               ? 0
               : static_cast<int32_t>(std::lrint(std::clamp(sample * kScale, -kScale, kScale - 1)));
}

// One sample of a frame as it is delivered. `Out` is int16_t, or int32_t for 24 bits.
template <typename Out>
Out sample_of(const AVFrame& frame, int channel, int index, int channels) {
    const auto format = static_cast<AVSampleFormat>(frame.format);
    const bool is_planar = av_sample_fmt_is_planar(format) != 0;
    const uint8_t* const plane = frame.extended_data[is_planar ? channel : 0];
    const size_t at = static_cast<size_t>(is_planar ? index : index * channels + channel);
    const auto load = [&](auto value) {
        std::memcpy(&value, plane + at * sizeof value, sizeof value);
        return value;
    };
    constexpr bool kIsDeep = sizeof(Out) == sizeof(int32_t);
    constexpr int kBits = kIsDeep ? 24 : 16;
    switch (av_get_packed_sample_fmt(format)) {
        case AV_SAMPLE_FMT_U8:
            return static_cast<Out>((load(uint8_t{}) - 128) * (1 << (kBits - 8)));
        case AV_SAMPLE_FMT_S16:
            return static_cast<Out>(load(int16_t{}) * (1 << (kBits - 16)));
        case AV_SAMPLE_FMT_S32:
            return static_cast<Out>(load(int32_t{}) >> (32 - kBits));
        case AV_SAMPLE_FMT_FLT:
            return static_cast<Out>(to_integer<kBits>(static_cast<double>(load(float{}))));
        case AV_SAMPLE_FMT_DBL:
            return static_cast<Out>(to_integer<kBits>(load(double{})));
        default:
            return 0;
    }
}

}  // namespace nuvio::reader::libav
