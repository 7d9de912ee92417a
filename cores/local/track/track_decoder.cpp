#include "local/track/track_decoder.h"

#include <sndfile.h>
#ifdef __x86_64__
#include <tmmintrin.h>
#endif

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstring>
#include <utility>

#include "common/utf8.h"

namespace local_core {

namespace {

static_assert(std::endian::native == std::endian::little, "PCM is delivered little-endian");

// Keeps the arithmetic of positions far from overflow; also what an unknown length comes as.
constexpr uint64_t kMaxFrames = uint64_t{1} << 48;

constexpr size_t kMaxTagBytes = 1024;

bool is_above(const nuv_audio_format& format, nuv_audio_quality quality) {
    static constexpr uint32_t kHighestRates[] = {48000, 96000, 192000, 384000};
    const bool is_cd = quality == NUV_AUDIO_QUALITY_CD;
    return format.sample_rate > kHighestRates[std::min<size_t>(quality, 3)] ||
           (is_cd && format.sample_format != NUV_AUDIO_SAMPLE_FORMAT_16_BIT);
}

std::string tag(SNDFILE* file, int which) {
    const char* text = sf_get_string(file, which);
    return text != nullptr ? std::string(nuvio::beginning(text, kMaxTagBytes)) : "";
}

void set_format(uint32_t rate, uint32_t channels, bool is_deep, TrackInfo* info) {
    info->format.sample_rate = rate;
    info->format.channel_count = channels;
    info->format.sample_format =
        is_deep ? NUV_AUDIO_SAMPLE_FORMAT_24_BIT : NUV_AUDIO_SAMPLE_FORMAT_16_BIT;
    info->frame_bytes = (is_deep ? sizeof(int32_t) : sizeof(int16_t)) * channels;
}

void describe_sndfile(SNDFILE* file, const SF_INFO& raw, bool is_deep, bool is_endless,
                      TrackInfo* info) {
    set_format(static_cast<uint32_t>(std::max(raw.samplerate, 0)),
               static_cast<uint32_t>(std::max(raw.channels, 0)), is_deep, info);
    info->is_endless = is_endless;
    info->frame_count =
        is_endless ? kMaxFrames : static_cast<uint64_t>(std::max<sf_count_t>(raw.frames, 0));
    info->seekable = raw.seekable != 0;
    info->title = tag(file, SF_STR_TITLE);
    info->artist = tag(file, SF_STR_ARTIST);
    info->album = tag(file, SF_STR_ALBUM);
}

void describe_foreign(const ForeignInfo& foreign, TrackInfo* info) {
    set_format(foreign.sample_rate, foreign.channels, foreign.is_deep, info);
    info->is_endless = !foreign.frames;
    info->frame_count = foreign.frames.value_or(kMaxFrames);
    info->seekable = foreign.seekable && foreign.frames;
    info->title = foreign.title;
    info->artist = foreign.artist;
    info->album = foreign.album;
}

// The nearest integer of `bits` bits; silence for what is no number.
template <int bits>
int32_t to_integer(float sample) {
    constexpr float kScale = static_cast<float>(int32_t{1} << (bits - 1));
    if (std::isnan(sample)) {
        return 0;
    }
    return static_cast<int32_t>(std::lrintf(std::clamp(sample * kScale, -kScale, kScale - 1.0F)));
}

// The conversions work in place, front to back: a sample never grows, so that none is overwritten
// before it was read.
template <typename From, typename To, typename Convert>
void convert_in_place(void* block, size_t sample_count, Convert convert) {
    static_assert(sizeof(To) <= sizeof(From));
    auto* bytes = static_cast<std::byte*>(block);
    for (size_t i = 0; i < sample_count; ++i) {
        From from;
        std::memcpy(&from, bytes + i * sizeof(From), sizeof from);
        const To to = convert(from);
        std::memcpy(bytes + i * sizeof(To), &to, sizeof to);
    }
}

// Samples of 3 bytes, little-endian, as they are in the file: read at once and unpacked here, for
// libsndfile reads and unpacks them in pieces of 8 KiB.
bool has_packed_24(SNDFILE* file, int sndfile_format) {
    const int container = sndfile_format & SF_FORMAT_TYPEMASK;
    const bool is_plain = container == SF_FORMAT_WAV || container == SF_FORMAT_WAVEX ||
                          container == SF_FORMAT_RF64 || container == SF_FORMAT_W64;
    return is_plain && (sndfile_format & SF_FORMAT_SUBMASK) == SF_FORMAT_PCM_24 &&
           sf_command(file, SFC_RAW_DATA_NEEDS_ENDSWAP, nullptr, 0) == SF_FALSE;
}

#ifdef __x86_64__
// Four samples at a time, which compilers do not come to by themselves: a quarter of the time.
// Returns how many were unpacked.
[[gnu::target("ssse3")]] size_t unpack_fours(std::byte* to, const std::byte* from, size_t count) {
    const __m128i places = _mm_setr_epi8(-1, 0, 1, 2, -1, 3, 4, 5, -1, 6, 7, 8, -1, 9, 10, 11);
    size_t done = 0;
    for (; done + 6 <= count; done += 4) {  // 16 bytes are read for the 12 of four samples
        const __m128i packed = _mm_loadu_si128(reinterpret_cast<const __m128i*>(from + 3 * done));
        const __m128i samples = _mm_srai_epi32(_mm_shuffle_epi8(packed, places), 8);
        _mm_storeu_si128(reinterpret_cast<__m128i*>(to + 4 * done), samples);
    }
    return done;
}
#endif

// From the block's last three quarters to the whole of it. Front to back, each sample is read
// before its bytes are written: the gap between the two shrinks to nothing at the last one.
void unpack_in_place(void* block, size_t sample_count) {
    auto* to = static_cast<std::byte*>(block);
    const std::byte* from = to + sample_count;
    size_t i = 0;
#ifdef __x86_64__
    if (__builtin_cpu_supports("ssse3")) {
        i = unpack_fours(to, from, sample_count);
    }
#endif
    for (; i < sample_count; ++i) {
        int32_t sample;  // its lowest byte is not the sample's
        std::memcpy(&sample, from + 3 * i - 1, sizeof sample);
        sample >>= 8;
        std::memcpy(to + 4 * i, &sample, sizeof sample);
    }
}

size_t read_packed_24(SNDFILE* file, void* block, size_t capacity_bytes, size_t channels) {
    const size_t packed_frame = 3 * channels;
    const size_t frames = capacity_bytes / (4 * channels);
    auto* const packed = static_cast<std::byte*>(block) + frames * channels;
    const sf_count_t got =
        sf_read_raw(file, packed, static_cast<sf_count_t>(frames * packed_frame));
    const size_t got_frames = got <= 0 ? 0 : static_cast<size_t>(got) / packed_frame;
    if (got_frames < frames) {
        std::memmove(static_cast<std::byte*>(block) + got_frames * channels, packed,
                     got_frames * packed_frame);
    }
    unpack_in_place(block, got_frames * channels);
    return got_frames;
}

}  // namespace

uint64_t TrackInfo::frame_at(uint64_t position_ms) const {
    const uint64_t limited = std::min(position_ms, duration_ms() + 1);
    return std::min(limited * format.sample_rate / 1000, frame_count);
}

TrackDecoder::TrackDecoder(std::unique_ptr<TrackInput> input, TrackInfo info, Conversion conversion)
    : m_input(std::move(input)), m_info(std::move(info)), m_conversion(conversion) {}

TrackDecoder::~TrackDecoder() = default;

TrackDecoder::Conversion TrackDecoder::conversion_of(SNDFILE* file, int sndfile_format) {
    if (has_packed_24(file, sndfile_format)) {
        return Conversion::unpack_24;
    }
    static constexpr struct {
        int encoding;
        Conversion conversion;
    } kDeepOrLossy[] = {
        {SF_FORMAT_PCM_24, Conversion::upper_24},
        {SF_FORMAT_PCM_32, Conversion::upper_24},
        {SF_FORMAT_DWVW_24, Conversion::upper_24},
        {SF_FORMAT_ALAC_20, Conversion::upper_24},
        {SF_FORMAT_ALAC_24, Conversion::upper_24},
        {SF_FORMAT_ALAC_32, Conversion::upper_24},
        {SF_FORMAT_FLOAT, Conversion::float_to_24},
        {SF_FORMAT_DOUBLE, Conversion::float_to_24},
        {SF_FORMAT_VORBIS, Conversion::float_to_16},
        {SF_FORMAT_OPUS, Conversion::float_to_16},
        {SF_FORMAT_MPEG_LAYER_I, Conversion::float_to_16},
        {SF_FORMAT_MPEG_LAYER_II, Conversion::float_to_16},
        {SF_FORMAT_MPEG_LAYER_III, Conversion::float_to_16},
    };
    for (const auto& row : kDeepOrLossy) {
        if ((sndfile_format & SF_FORMAT_SUBMASK) == row.encoding) {
            return row.conversion;
        }
    }
    return Conversion::none_16;
}

bool TrackDecoder::is_deep(Conversion conversion) {
    return conversion == Conversion::unpack_24 || conversion == Conversion::upper_24 ||
           conversion == Conversion::float_to_24;
}

std::unique_ptr<TrackDecoder> TrackDecoder::open(const Track& track, nuv_audio_quality highest,
                                                 Interruption& interruption, OpenFailure* failure) {
    SF_INFO raw{};
    auto input = TrackInput::open(track, interruption, &raw, failure);
    if (!input) {
        return nullptr;
    }
    TrackInfo info{};
    Conversion conversion = Conversion::none_16;
    if (input->foreign() != nullptr) {
        describe_foreign(input->foreign()->info(), &info);
    } else {
        conversion = conversion_of(input->file(), raw.format);
        describe_sndfile(input->file(), raw, is_deep(conversion), input->is_endless(), &info);
    }
    if (info.format.sample_rate == 0 || info.format.channel_count == 0 || info.frame_count == 0 ||
        info.frame_count > kMaxFrames || info.frame_bytes > kMaxFrameBytes) {
        failure->reason = "nothing to play, or of unknown length";
        return nullptr;
    }
    if (is_above(info.format, highest)) {
        failure->reason = "above the quality that the output takes";
        return nullptr;
    }
    if (HttpSource* const source = input->source()) {
        info.station = nuvio::beginning(input->station(), kMaxTagBytes);
        info.live_title = source->title();
    }
    return std::unique_ptr<TrackDecoder>(
        new TrackDecoder(std::move(input), std::move(info), conversion));
}

size_t TrackDecoder::read_frames(void* block, size_t capacity_bytes) {
    // Lossy samples are read as 4-byte numbers before they are narrowed.
    const bool narrows = m_conversion == Conversion::float_to_16;
    const size_t read_bytes = narrows ? 2 * m_info.frame_bytes : m_info.frame_bytes;
    const auto frames = static_cast<sf_count_t>(capacity_bytes / read_bytes);
    SNDFILE* const file = m_input->file();
    sf_count_t got = 0;
    switch (m_conversion) {
        case Conversion::unpack_24:
            return read_packed_24(file, block, capacity_bytes, m_info.format.channel_count);
        case Conversion::none_16:
            got = sf_readf_short(file, static_cast<short*>(block), frames);
            break;
        case Conversion::upper_24:
            got = sf_readf_int(file, static_cast<int*>(block), frames);
            break;
        case Conversion::float_to_24:
        case Conversion::float_to_16:
            got = sf_readf_float(file, static_cast<float*>(block), frames);
            break;
    }
    return got <= 0 ? 0 : static_cast<size_t>(got);
}

// A radio's next stream, which has to be of the same format.
bool TrackDecoder::rejoin() {
    SF_INFO raw{};
    if (!m_input->rejoin(&raw)) {
        return false;
    }
    SNDFILE* const file = m_input->file();
    TrackInfo next{};
    const Conversion conversion = conversion_of(file, raw.format);
    describe_sndfile(file, raw, is_deep(conversion), true, &next);
    if (conversion != m_conversion || next.format.sample_rate != m_info.format.sample_rate ||
        next.format.channel_count != m_info.format.channel_count) {
        return false;
    }
    if (!next.title.empty()) {
        m_live_title = next.title;
        m_live_artist = next.artist;
    }
    return true;
}

size_t TrackDecoder::read(void* block, size_t capacity_bytes) {
    if (m_input->foreign() != nullptr) {
        return m_input->foreign()->read(block, capacity_bytes / m_info.frame_bytes) *
               m_info.frame_bytes;
    }
    size_t frames = read_frames(block, capacity_bytes);
    if (frames == 0 && rejoin()) {
        frames = read_frames(block, capacity_bytes);
    }
    const size_t samples = frames * m_info.format.channel_count;
    if (m_conversion == Conversion::upper_24) {
        convert_in_place<int32_t, int32_t>(block, samples, [](int32_t s) { return s >> 8; });
    } else if (m_conversion == Conversion::float_to_24) {
        convert_in_place<float, int32_t>(block, samples, to_integer<24>);
    } else if (m_conversion == Conversion::float_to_16) {
        convert_in_place<float, int16_t>(
            block, samples, [](float s) { return static_cast<int16_t>(to_integer<16>(s)); });
    }
    return frames * m_info.frame_bytes;
}

std::optional<uint64_t> TrackDecoder::seek(uint64_t frame) {
    if (m_input->foreign() != nullptr) {
        return m_input->foreign()->seek(frame) ? std::optional(frame) : std::nullopt;
    }
    const sf_count_t reached = sf_seek(m_input->file(), static_cast<sf_count_t>(frame), SEEK_SET);
    return reached < 0 ? std::nullopt : std::optional<uint64_t>(static_cast<uint64_t>(reached));
}

std::string TrackDecoder::live_title() const {
    HttpSource* const source = m_input->source();
    const std::string title = source != nullptr ? source->title() : "";
    return title.empty() ? m_live_title : title;
}

HttpFailure TrackDecoder::failure() const {
    HttpSource* const source = m_input->source();
    return source != nullptr ? source->failure() : HttpFailure::none;
}

std::string TrackDecoder::last_error() const {
    if (failure() != HttpFailure::none) {
        return m_input->source()->error();
    }
    SNDFILE* const file = m_input->file();
    return file == nullptr || sf_error(file) == SF_ERR_NO_ERROR ? "" : sf_strerror(file);
}

}  // namespace local_core
