#include "reader/inside/sound/leveler.h"

#include <algorithm>
#include <cmath>
#include <utility>

namespace nuvio::reader {

namespace {

constexpr size_t kBlockFrames = 256;
constexpr float kCeiling = 1 - 2.0F / 32768;
constexpr float kRiseDbASecond = 15;

float factor_of(float db) {
    return std::pow(10.0F, db / 20);
}

}  // namespace

Leveler::Leveler(float gain_db, uint32_t rate_hz, Source source)
    : m_source(std::move(source)),
      m_factor(factor_of(gain_db)),
      m_rise(factor_of(kRiseDbASecond * kBlockFrames / static_cast<float>(rate_hz))) {
    m_present.samples.resize(kBlockFrames * kChannels);
    m_next.samples.resize(kBlockFrames * kChannels);
}

void Leveler::begin() {
    m_has_begun = false;
    m_present.frames = m_next.frames = m_read = 0;
}

void Leveler::fill(Block& block) {
    block.frames = 0;
    for (size_t got = 1; got > 0 && block.frames < kBlockFrames; block.frames += got) {
        got =
            m_source(block.samples.data() + block.frames * kChannels, kBlockFrames - block.frames);
    }
    float peak = kCeiling;
    for (size_t i = 0; i < block.frames * kChannels; ++i) {
        block.samples[i] *= m_factor;
        peak = std::max(peak, std::fabs(block.samples[i]));
    }
    block.most = kCeiling / peak;
}

// Within a block the level goes straight from one that neither it nor the one before is too loud
// with to one that neither it nor the next one is.
void Leveler::go_on() {
    if (!std::exchange(m_has_begun, true)) {
        fill(m_next);
        m_level = m_next.most;
    }
    std::swap(m_present, m_next);
    fill(m_next);
    m_read = 0;
    const float level = std::min({m_present.most, m_next.most, m_level * m_rise});
    const float step = (level - m_level) / static_cast<float>(kBlockFrames);
    for (size_t frame = 0; frame < m_present.frames; ++frame) {
        const float here = m_level + step * static_cast<float>(frame + 1);
        m_present.samples[frame * kChannels] *= here;
        m_present.samples[frame * kChannels + 1] *= here;
    }
    m_level = level;
}

size_t Leveler::read(float* to, size_t frames) {
    if (m_read == m_present.frames) {
        go_on();
    }
    const size_t count = std::min(frames, m_present.frames - m_read);
    std::copy_n(m_present.samples.data() + m_read * kChannels, count * kChannels, to);
    m_read += count;
    return count;
}

}  // namespace nuvio::reader
