#include "local/track/verification.h"

#include <algorithm>
#include <bit>
#include <cstring>
#include <iterator>

#include "local/track/output.h"

namespace local_core {

namespace {

static_assert(std::endian::native == std::endian::little, "sums are of little-endian samples");

constexpr unsigned kByteBits = 8;
constexpr unsigned kShallowBits = 16, kDeepBits = 24;
constexpr size_t kPieceSamples = 1024;  // packed at a time

unsigned width_of(const nuv_audio_format& format) {
    return format.sample_format == NUV_AUDIO_SAMPLE_FORMAT_16_BIT ? kShallowBits : kDeepBits;
}

Verdict hindrance_of(const TrackInfo& info, bool with_all) {
    const bool is_cut = info.sum.bits > width_of(info.format);
    const bool is_other =
        !info.is_guess && info.sum.frames != 0 && info.sum.frames != info.frame_count;
    return info.sum.bits == 0                                         ? Verdict::no_sum
           : is_cut || !info.conversion().empty()                     ? Verdict::converted
           : is_other                                                 ? Verdict::no_sum
           : !with_all && is_above(info.format, NUV_AUDIO_QUALITY_CD) ? Verdict::too_much
                                                                      : Verdict::verified;
}

}  // namespace

const char* text_of(Verdict verdict) {
    static constexpr const char* kTexts[] = {"verified",
                                             "its samples are not those of the sum in the file",
                                             "no sum in the file",
                                             "above CD quality",
                                             "converted",
                                             "sought or paused",
                                             "not played to its end",
                                             "it ended early"};
    return kTexts[static_cast<size_t>(verdict)];
}

Verification::Verification(const TrackInfo& info, bool with_all)
    : m_sum(info.sum),
      m_frame_bytes(info.frame_bytes),
      m_channels(info.format.channel_count),
      m_width(width_of(info.format)),
      m_is_doubled(info.inside.channel_count == 1 && m_channels == 2),
      m_packed_bytes((m_sum.bits + kByteBits - 1) / kByteBits),
      m_hindrance(hindrance_of(info, with_all)) {
    begin();
}

void Verification::begin() {
    m_frames = 0;
    m_is_wrong = false;
    MD5Init(&m_hash);
}

void Verification::seek(uint64_t frame) {
    m_was_sought = frame != 0;
    if (!m_was_sought) {
        begin();
    }
}

void Verification::add(const std::byte* samples, size_t bytes) {
    if (!is_open()) {
        return;
    }
    const size_t frames = bytes / m_frame_bytes;
    m_frames += frames;
    m_is_wrong |= frames * m_frame_bytes != bytes;
    if (m_is_doubled) {
        m_width == kShallowBits ? add_packed<int16_t, 2>(samples, frames)
                                : add_packed<int32_t, 2>(samples, frames);
    } else if (m_sum.bits == kShallowBits) {
        hash(samples, bytes);
    } else {
        const size_t count = frames * m_channels;
        m_width == kShallowBits ? add_packed<int16_t, 1>(samples, count)
                                : add_packed<int32_t, 1>(samples, count);
    }
}

// Of each group of equal samples one, in the bytes that its own width takes. What is beyond that
// has to be as it was made: zeros below, the sign above, the same for the second speaker.
template <typename Sample, size_t kEqual>
void Verification::add_packed(const std::byte* samples, size_t count) {
    std::array<std::byte, kPieceSamples * sizeof(Sample)> packed;
    const unsigned below = m_width - m_sum.bits;
    const unsigned above = kByteBits * sizeof(int32_t) - m_width;
    int32_t stray = 0;
    while (count > 0) {
        const size_t piece = std::min(count, kPieceSamples);
        std::byte* to = packed.data();
        for (size_t i = 0; i < piece;
             ++i, to += m_packed_bytes, samples += kEqual * sizeof(Sample)) {
            Sample given[kEqual];
            std::memcpy(given, samples, sizeof given);
            const int32_t sample = int32_t{given[0]} << above >> (above + below);
            stray |= (sample << below) ^ given[0];
            stray |= given[0] ^ given[kEqual - 1];
            const auto own = static_cast<Sample>(sample);
            std::memcpy(to, &own, sizeof own);
        }
        hash(packed.data(), static_cast<size_t>(to - packed.data()));
        count -= piece;
    }
    m_is_wrong |= stray != 0;
}

void Verification::hash(const void* bytes, size_t size) {
    MD5Update(&m_hash, static_cast<const uint8_t*>(bytes), size);
}

Verdict Verification::conclude(bool is_played_out) {
    const Verdict otherwise = m_hindrance != Verdict::verified ? m_hindrance
                              : m_was_sought                   ? Verdict::sought
                              : !is_played_out                 ? Verdict::unfinished
                              : m_frames < m_sum.frames        ? Verdict::cut_off
                                                               : Verdict::verified;
    if (otherwise != Verdict::verified) {
        return otherwise;
    }
    std::array<uint8_t, nuvio::reader::SampleSum::kBytes> taken{};
    MD5Final(taken.data(), &m_hash);
    return !m_is_wrong && std::ranges::equal(taken, m_sum.md5) ? Verdict::verified
                                                               : Verdict::differs;
}

}  // namespace local_core
