#include "reader/inside/sound/mixing.h"

#include <algorithm>
#include <cmath>

namespace nuvio::reader {

namespace {

// A channel's part of left and right.
using Factors = std::array<float, 2>;

constexpr float kMinus3Db = 0.70710678F;
constexpr Factors kLeft{1, 0}, kRight{0, 1};
constexpr Factors kCenter{kMinus3Db, kMinus3Db}, kLow{0, 0};
constexpr Factors kBesideLeft{kMinus3Db, 0}, kBesideRight{0, kMinus3Db};
constexpr Factors kBehind{0.5F, 0.5F};

template <typename Sample>
constexpr float kFullScale = 1U << (sizeof(Sample) == sizeof(int16_t) ? 15U : 23U);

std::vector<Factors> factors_of(size_t channels) {
    static const std::array<std::vector<Factors>, 9> kFactors = {{
        {},
        {{1, 1}},
        {kLeft, kRight},
        {kLeft, kRight, kCenter},
        {kLeft, kRight, kBesideLeft, kBesideRight},
        {kLeft, kRight, kCenter, kBesideLeft, kBesideRight},
        {kLeft, kRight, kCenter, kLow, kBesideLeft, kBesideRight},
        {kLeft, kRight, kCenter, kLow, kBehind, kBesideLeft, kBesideRight},
        {kLeft, kRight, kCenter, kLow, kBesideLeft, kBesideRight, kBesideLeft, kBesideRight},
    }};
    std::vector<Factors> factors = kFactors[std::min(channels, kFactors.size() - 1)];
    factors.resize(channels, kBehind);
    return factors;
}

}  // namespace

Mixer::Mixer(size_t channels) : m_factors(factors_of(channels)) {
    if (!changes()) {
        return;
    }
    Factors sums{};
    for (const auto& [left, right] : m_factors) {
        sums[0] += left;
        sums[1] += right;
    }
    const float most = std::max(sums[0], sums[1]);
    for (auto& [left, right] : m_factors) {
        left /= most;
        right /= most;
    }
}

template <typename Sample>
void Mixer::mix(const Sample* from, size_t frames, float* to) const {
    for (size_t frame = 0; frame < frames; ++frame, to += 2) {
        to[0] = to[1] = 0;
        for (const auto& [left, right] : m_factors) {
            const float sample = static_cast<float>(*from++) / kFullScale<Sample>;
            to[0] += left * sample;
            to[1] += right * sample;
        }
    }
}

template <typename Sample>
void Rounder::round(const float* from, size_t samples, Sample* to, bool with_noise) {
    constexpr float kScale = kFullScale<Sample>;
    for (size_t i = 0; i < samples; ++i) {
        float sample = from[i] * kScale;
        if (with_noise) {
            m_noise = m_noise * 1664525U + 1013904223U;
            // Two numbers of even distribution, of which the one's loss is the other's gain.
            constexpr float kStep = 1.0F / (1U << 16U);
            const float one = static_cast<float>(m_noise >> 16U) * kStep;
            m_noise = m_noise * 1664525U + 1013904223U;
            sample += one - static_cast<float>(m_noise >> 16U) * kStep;
        }
        to[i] = static_cast<Sample>(std::lrintf(std::clamp(sample, -kScale, kScale - 1.0F)));
    }
}

template void Mixer::mix(const int16_t*, size_t, float*) const;
template void Mixer::mix(const int32_t*, size_t, float*) const;
template void Rounder::round(const float*, size_t, int16_t*, bool);
template void Rounder::round(const float*, size_t, int32_t*, bool);

}  // namespace nuvio::reader
