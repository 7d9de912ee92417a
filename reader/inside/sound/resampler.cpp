#include "reader/inside/sound/resampler.h"

#include <algorithm>
#include <numeric>
#include <utility>

namespace nuvio::reader {

namespace {

// Of the rates' own steps: beyond it a place may be off by less than a frame.
constexpr uint64_t kMaxStep = 4096;
// A filter of the library's is shorter, in frames of the lower rate.
constexpr uint64_t kFilterFrames = 256;

size_t edge_of(uint32_t from_hz, uint32_t to_hz, uint64_t step) {
    const uint64_t frames = kFilterFrames * ((from_hz - 1) / to_hz + 1);
    return step <= kMaxStep ? (frames + step - 1) / step * step : frames;
}

}  // namespace

Resampler::Resampler(uint32_t from_hz, uint32_t to_hz, uint32_t channels)
    : m_from_hz(from_hz),
      m_to_hz(to_hz),
      m_channels(channels),
      m_from_step(from_hz / std::gcd(from_hz, to_hz)),
      m_to_step(to_hz / std::gcd(from_hz, to_hz)),
      m_edge(edge_of(from_hz, to_hz, m_from_step)) {
    begin(0, 0);
}

// ---- Places -------------------------------------------------------------------------------------

uint64_t Resampler::frames_out_of(uint64_t frames_in) const {
    return frames_in / m_from_step * m_to_step +
           (frames_in % m_from_step * m_to_step + m_from_step / 2) / m_from_step;
}

uint64_t Resampler::begin_for(uint64_t frame_out) const {
    const uint64_t steps = frame_out / m_to_step;
    const uint64_t rest = m_from_step <= kMaxStep ? 0  // where both rates have a frame
                                                  : frame_out % m_to_step * m_from_step / m_to_step;
    const uint64_t place = steps * m_from_step + rest;
    return place > m_edge ? place - m_edge : 0;
}

uint64_t Resampler::begin(uint64_t frame_in, uint64_t frame_out) {
    const soxr_io_spec_t floats = soxr_io_spec(SOXR_FLOAT32_I, SOXR_FLOAT32_I);
    const soxr_quality_spec_t quality = soxr_quality_spec(SOXR_HQ, 0);
    const soxr_runtime_spec_t one_thread = soxr_runtime_spec(1);
    soxr_error_t error = nullptr;
    m_soxr.reset(soxr_create(m_from_hz, m_to_hz, static_cast<unsigned>(m_channels), &error, &floats,
                             &quality, &one_thread));
    m_error = error != nullptr ? error : m_soxr ? "" : "no memory to convert it";
    m_pending.clear();
    m_taken = 0;
    m_latest.clear();
    m_has_ended = false;
    m_given = frame_in;
    m_is_led_in = frame_in > 0;
    const uint64_t first = frames_out_of(frame_in);
    m_next = std::max(first, frame_out);
    m_to_skip = m_next - first + (m_is_led_in ? 0 : frames_out_of(m_edge));
    return m_next;
}

// ---- Sound --------------------------------------------------------------------------------------

void Resampler::give(const float* samples, size_t frames) {
    const auto drop = [this](std::vector<float>& from, size_t count) {
        from.erase(from.begin(), from.begin() + static_cast<ptrdiff_t>(count * m_channels));
    };
    drop(m_pending, std::exchange(m_taken, 0));
    m_pending.insert(m_pending.end(), samples, samples + frames * m_channels);
    const size_t heard = std::min(frames, m_edge + 1);
    m_latest.insert(m_latest.end(), samples + (frames - heard) * m_channels,
                    samples + frames * m_channels);
    drop(m_latest, frames_in(m_latest) - std::min(frames_in(m_latest), m_edge + 1));
    m_given += frames;
}

// What lies beyond the first or the last of these frames, as far as the edge: the sound turned
// round about it. Silence beyond that.
std::vector<float> Resampler::mirrored(const std::vector<float>& samples, bool at_its_end) const {
    std::vector<float> beyond(m_edge * m_channels, 0.0F);
    const size_t count = frames_in(samples);
    for (size_t distance = 1; distance <= m_edge && distance < count; ++distance) {
        const size_t axis = at_its_end ? count - 1 : 0;
        const size_t from = at_its_end ? axis - distance : distance;
        const size_t to = at_its_end ? distance - 1 : m_edge - distance;
        for (size_t channel = 0; channel < m_channels; ++channel) {
            beyond[to * m_channels + channel] =
                2 * samples[axis * m_channels + channel] - samples[from * m_channels + channel];
        }
    }
    return beyond;
}

void Resampler::finish() {
    const std::vector<float> beyond = mirrored(m_latest, true);
    m_pending.insert(m_pending.end(), beyond.begin(), beyond.end());
    m_has_ended = true;
}

size_t Resampler::process(float* samples, size_t frames) {
    constexpr float kNothing = 0;  // but no null, as an empty vector has: that is the end
    size_t taken = 0, made = 0;
    const size_t left = frames_in(m_pending) - m_taken;
    const float* const in = left > 0      ? m_pending.data() + m_taken * m_channels
                            : m_has_ended ? nullptr  // the library gives what it still has
                                          : &kNothing;
    const soxr_error_t error = soxr_process(m_soxr.get(), in, left, &taken, samples, frames, &made);
    if (error != nullptr) {
        m_error = error;
        return 0;
    }
    m_taken += taken;
    return made;
}

size_t Resampler::read(float* samples, size_t frames) {
    if (!m_error.empty() || (!m_is_led_in && !m_has_ended && frames_in(m_pending) <= m_edge)) {
        return 0;
    }
    if (!std::exchange(m_is_led_in, true)) {
        const std::vector<float> beyond = mirrored(m_pending, false);
        m_pending.insert(m_pending.begin(), beyond.begin(), beyond.end());
    }
    if (m_has_ended) {
        frames = std::min<uint64_t>(frames, std::max(frames_out_of(m_given), m_next) - m_next);
    }
    size_t made = 0;
    for (bool is_dry = false; made == 0 && !is_dry && frames > 0;) {
        is_dry = frames_in(m_pending) == m_taken;
        const size_t got = process(samples, frames);
        const size_t skipped = std::min<uint64_t>(got, m_to_skip);
        std::copy(samples + skipped * m_channels, samples + got * m_channels, samples);
        m_to_skip -= skipped;
        made = got - skipped;
        is_dry = is_dry && got == 0;
    }
    m_next += made;
    return made;
}

}  // namespace nuvio::reader
