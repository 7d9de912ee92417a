#include "reader/inside/sound/mixing.h"

#include <algorithm>
#include <cmath>

namespace nuvio::reader {

namespace {

using enum Speaker;

// For each number of channels.
using Orders = std::array<std::vector<Speaker>, 9>;

constexpr float kMinus3Db = 0.70710678F;

// To left and right, in the order of Speaker.
constexpr std::array<std::array<float, 2>, 8> kFactors = {{
    {1, 0},
    {0, 1},
    {kMinus3Db, kMinus3Db},
    {0, 0},
    {kMinus3Db, 0},
    {0, kMinus3Db},
    {0.5F, 0.5F},
    {0.5F, 0.5F},
}};

template <typename Sample>
constexpr float kFullScale = 1U << (sizeof(Sample) == sizeof(int16_t) ? 15U : 23U);

std::vector<Speaker> speakers_of(const Orders& orders, size_t channels) {
    std::vector<Speaker> speakers = orders[std::min(channels, orders.size() - 1)];
    speakers.resize(channels, elsewhere);
    return speakers;
}

}  // namespace

std::vector<Speaker> usual_speakers(size_t channels) {
    static const Orders kUsual = {{
        {},
        {front_center},
        {front_left, front_right},
        {front_left, front_right, front_center},
        {front_left, front_right, left, right},
        {front_left, front_right, front_center, left, right},
        {front_left, front_right, front_center, low_frequency, left, right},
        {front_left, front_right, front_center, low_frequency, back_center, left, right},
        {front_left, front_right, front_center, low_frequency, left, right, left, right},
    }};
    return speakers_of(kUsual, channels);
}

std::vector<Speaker> vorbis_speakers(size_t channels) {
    static const Orders kVorbis = {{
        {},
        {front_center},
        {front_left, front_right},
        {front_left, front_center, front_right},
        {front_left, front_right, left, right},
        {front_left, front_center, front_right, left, right},
        {front_left, front_center, front_right, left, right, low_frequency},
        {front_left, front_center, front_right, left, right, back_center, low_frequency},
        {front_left, front_center, front_right, left, right, left, right, low_frequency},
    }};
    return speakers_of(kVorbis, channels);
}

Mixer::Mixer(const std::vector<Speaker>& speakers) {
    if (speakers.size() <= 2) {
        m_factors.assign(1, {1, 1});
        if (speakers.size() == 2) {
            m_factors = {{1, 0}, {0, 1}};
        }
        return;
    }
    std::array<float, 2> sums{};
    for (const Speaker speaker : speakers) {
        m_factors.push_back(kFactors[static_cast<size_t>(speaker)]);
        sums[0] += m_factors.back()[0];
        sums[1] += m_factors.back()[1];
    }
    const float most = std::max({sums[0], sums[1], 1.0F});
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
