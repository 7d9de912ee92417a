#include "reader/inside/sound/output_sound.h"

#include <algorithm>
#include <tuple>
#include <utility>

namespace nuvio::reader {

namespace {

// Decoded, mixed and resampled at a time.
constexpr size_t kFramesAtATime = 1024;

uint32_t family_of(uint32_t rate_hz) {
    return rate_hz % 11025 == 0 ? 44100 : rate_hz % 8000 == 0 ? 48000 : rate_hz;
}

// The lowest is the best.
std::tuple<bool, bool, uint32_t> rank(uint32_t rate_hz, uint32_t wanted_hz) {
    const bool is_below = rate_hz < wanted_hz;
    return {family_of(rate_hz) != family_of(wanted_hz), is_below,
            is_below ? wanted_hz - rate_hz : rate_hz - wanted_hz};
}

bool is_in_reach(const SoundInfo& info) {
    return info.rate_hz >= Resampler::kLowestHz && info.rate_hz <= Resampler::kHighestHz &&
           info.frames <= Resampler::kMaxFrames;
}

}  // namespace

uint32_t output_rate(uint32_t rate_hz, const OutputFormats& output) {
    const uint32_t* const begin = output.rates_hz;
    const uint32_t* const end =
        begin + std::min<size_t>(output.rate_count, std::size(output.rates_hz));
    const auto* const best = std::min_element(begin, end, [=](uint32_t one, uint32_t other) {
        return rank(one, rate_hz) < rank(other, rate_hz);
    });
    return best == end ? 0 : *best;
}

OutputSound::OutputSound(std::unique_ptr<Decoder> decoder)
    : m_decoder(std::move(decoder)), m_info(m_decoder->info()) {}

std::unique_ptr<OutputSound> OutputSound::open(std::unique_ptr<Decoder> decoder,
                                               const OutputFormats& output, float gain_db,
                                               std::string* error) {
    std::unique_ptr<OutputSound> sound(new OutputSound(std::move(decoder)));
    const SoundInfo& inside = sound->info_inside();
    const uint32_t rate_hz = output_rate(inside.rate_hz, output);
    const bool is_resampled = rate_hz != inside.rate_hz;
    const bool is_narrowed = inside.is_deep && !output.is_deep;
    if (rate_hz == 0 || inside.channels == 0 ||
        (!is_resampled && !is_narrowed && inside.channels == kOutputChannels && gain_db == 0)) {
        return sound;
    }
    if (!is_in_reach(inside)) {
        *error = "it can't be converted to what the output takes";
        return nullptr;
    }
    sound->convert(rate_hz, output.is_deep, gain_db);
    return sound;
}

void OutputSound::convert(uint32_t rate_hz, bool to_deep, float gain_db) {
    const SoundInfo& inside = info_inside();
    m_mixer = std::make_unique<Mixer>(inside.channels);
    if (rate_hz != inside.rate_hz) {
        m_resampler = std::make_unique<Resampler>(inside.rate_hz, rate_hz, kOutputChannels);
        m_info.frames = m_resampler->frames_out_of(inside.frames);
    }
    if (gain_db != 0) {
        m_gain_db = gain_db;
        m_leveler.emplace(gain_db, rate_hz, [this](float* to, size_t frames) {
            return m_resampler ? read_resampled(to, frames) : read_mixed(to, frames);
        });
    }
    const bool is_new = m_resampler != nullptr || m_leveler || m_mixer->changes();
    m_info.rate_hz = rate_hz;
    m_info.channels = kOutputChannels;
    m_info.is_deep = to_deep && (is_new || inside.is_deep);
    m_with_noise = is_new || inside.is_deep != m_info.is_deep;
    m_decoded.resize(kFramesAtATime * inside.frame_bytes());
    m_mixed.resize(kFramesAtATime * kOutputChannels);
    m_made.resize(kFramesAtATime * kOutputChannels);
}

// ---- Sound --------------------------------------------------------------------------------------

size_t OutputSound::read_mixed(float* to, size_t frames) {
    const size_t frame_bytes = info_inside().frame_bytes();
    const size_t got = m_decoder->read(m_decoded.data(), frames * frame_bytes) / frame_bytes;
    const void* const decoded = m_decoded.data();
    if (info_inside().is_deep) {
        m_mixer->mix(static_cast<const int32_t*>(decoded), got, to);
    } else {
        m_mixer->mix(static_cast<const int16_t*>(decoded), got, to);
    }
    return got;
}

size_t OutputSound::read_resampled(float* to, size_t frames) {
    size_t made = m_resampler->read(to, frames);
    while (made == 0 && !m_has_ended && m_resampler->last_error().empty()) {
        const size_t got = read_mixed(m_mixed.data(), kFramesAtATime);
        m_has_ended = got == 0;
        if (m_has_ended) {
            m_resampler->finish();
        } else {
            m_resampler->give(m_mixed.data(), got);
        }
        made = m_resampler->read(to, frames);
    }
    return made;
}

size_t OutputSound::read(void* block, size_t capacity_bytes) {
    if (!is_converted()) {
        return m_decoder->read(block, capacity_bytes);
    }
    auto* const bytes = static_cast<std::byte*>(block);
    size_t done = 0;
    for (size_t made = 1; made > 0 && capacity_bytes - done >= m_info.frame_bytes();
         done += made * m_info.frame_bytes()) {
        const size_t frames =
            std::min((capacity_bytes - done) / m_info.frame_bytes(), kFramesAtATime);
        float* const samples = m_made.data();
        made = m_leveler     ? m_leveler->read(samples, frames)
               : m_resampler ? read_resampled(samples, frames)
                             : read_mixed(samples, frames);
        void* const to = bytes + done;
        if (m_info.is_deep) {
            m_rounder.round(samples, made * kOutputChannels, static_cast<int32_t*>(to),
                            m_with_noise);
        } else {
            m_rounder.round(samples, made * kOutputChannels, static_cast<int16_t*>(to),
                            m_with_noise);
        }
    }
    return done;
}

std::optional<uint64_t> OutputSound::seek(uint64_t frame) {
    if (m_leveler) {
        m_leveler->begin();
    }
    if (!m_resampler) {
        return m_decoder->seek(frame);
    }
    const auto reached = m_decoder->seek(m_resampler->begin_for(frame));
    if (!reached || *reached > Resampler::kMaxFrames) {
        return std::nullopt;
    }
    m_has_ended = false;
    return m_resampler->begin(*reached, frame);
}

std::string OutputSound::last_error() const {
    return m_resampler && !m_resampler->last_error().empty() ? m_resampler->last_error()
                                                             : m_decoder->last_error();
}

}  // namespace nuvio::reader
