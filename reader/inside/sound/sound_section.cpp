#include "reader/inside/sound/sound_section.h"

#include <algorithm>
#include <utility>

namespace nuvio::reader {

SoundSection::SoundSection(std::unique_ptr<OutputSound> sound)
    : m_sound(std::move(sound)), m_info(m_sound->info()) {}

std::unique_ptr<SoundSection> SoundSection::open(std::unique_ptr<OutputSound> sound,
                                                 const Section& section, std::string* error) {
    std::unique_ptr<SoundSection> part(new SoundSection(std::move(sound)));
    return section.is_whole() || part->cut_out(section, error) ? std::move(part) : nullptr;
}

bool SoundSection::cut_out(const Section& section, std::string* error) {
    m_begin = nearest_frame(std::min(section.begin_us, Section::kLongest), m_info.rate_hz);
    if (section.end_us != Section::kToTheEnd) {
        m_end = nearest_frame(std::min(section.end_us, Section::kLongest), m_info.rate_hz);
    }
    if (m_info.is_endless || m_begin >= m_end || (m_begin >= m_info.frames && !m_info.is_guess)) {
        *error = "it ends before this part of it begins";
        return false;
    }
    const uint64_t last = std::max(m_info.frames, m_begin + 1);
    m_info.frames =
        (m_info.is_guess && m_end != UINT64_MAX ? m_end : std::min(m_end, last)) - m_begin;
    // Of a guess there may be more frames.
    m_end = m_info.is_guess ? m_end : m_begin + m_info.frames;
    if (m_begin > 0 && (!m_info.is_seekable || seek(0) != 0)) {
        *error = "this part of it can't be gone to: " + m_sound->last_error();
        return false;
    }
    return true;
}

// What is decoded beyond the end is left out.
size_t SoundSection::read(void* block, size_t capacity_bytes) {
    const uint64_t left = m_end - std::min(m_place, m_end);
    if (left == 0) {
        return 0;
    }
    const uint64_t got = m_sound->read(block, capacity_bytes) / m_info.frame_bytes();
    const uint64_t frames = std::min(got, left);
    m_place += frames;
    return static_cast<size_t>(frames * m_info.frame_bytes());
}

std::optional<uint64_t> SoundSection::seek(uint64_t frame) {
    if (frame > m_end - m_begin) {
        return std::nullopt;
    }
    const auto reached = m_sound->seek(m_begin + frame);
    if (!reached || *reached < m_begin || *reached > m_end) {
        return std::nullopt;
    }
    m_place = *reached;
    return *reached - m_begin;
}

}  // namespace nuvio::reader
