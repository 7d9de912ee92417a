#include "reader/inside/sound/decoder.h"

#ifdef __x86_64__
#include <tmmintrin.h>
#endif

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstring>
#include <utility>

#include "common/utf8.h"
#include "reader/inside/flac_blocks.h"
#include "reader/inside/sound/channel_order.h"
#include "reader/inside/sound/flac_sound.h"
#include "reader/inside/sound/heads.h"
#include "reader/inside/sound/mpeg_shortcut.h"
#include "reader/inside/sound/ogg_chain.h"
#include "reader/inside/sound/sndfile_sound.h"

namespace nuvio::reader {

namespace {

static_assert(std::endian::native == std::endian::little, "PCM is delivered little-endian");

constexpr uint32_t kMostBits = 24;  // of FLAC, that libsndfile reads

std::string tag(SNDFILE* file, int which) {
    const char* text = sf_get_string(file, which);
    return text != nullptr ? std::string(beginning(text, kMaxSoundText)) : "";
}

SoundInfo describe(const SndfileSound& sound, const SF_INFO& raw, bool is_deep) {
    SoundInfo info;
    info.rate_hz = static_cast<uint32_t>(std::max(raw.samplerate, 0));
    info.channels = static_cast<uint32_t>(std::max(raw.channels, 0));
    info.is_deep = is_deep;
    info.is_endless = sound.is_endless();
    info.frames = info.is_endless ? 0 : static_cast<uint64_t>(std::max<sf_count_t>(raw.frames, 0));
    info.is_guess = sound.is_guess();
    info.is_seekable = raw.seekable != 0;
    info.title = tag(sound.file(), SF_STR_TITLE);
    info.artist = tag(sound.file(), SF_STR_ARTIST);
    info.album = tag(sound.file(), SF_STR_ALBUM);
    return info;
}

SoundInfo describe(const ForeignInfo& foreign) {
    return {foreign.sample_rate,
            foreign.channels,
            foreign.is_deep,
            !foreign.frames,
            foreign.frames.value_or(0),
            foreign.is_guess,
            foreign.seekable && foreign.frames,
            foreign.title,
            foreign.artist,
            foreign.album};
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

// In small pieces: where an MP3's last frame is cut off libsndfile gives nothing of what it decoded
// for the same read.
size_t read_lossy(SNDFILE* file, float* to, sf_count_t frames, size_t channels) {
    constexpr sf_count_t kPieceFrames = 1152;
    sf_count_t done = 0;
    for (sf_count_t got = kPieceFrames; done < frames && got == kPieceFrames; done += got) {
        float* const piece = to + static_cast<size_t>(done) * channels;
        const sf_count_t wanted = std::min(frames - done, kPieceFrames);
        got = std::max<sf_count_t>(sf_readf_float(file, piece, wanted), 0);
    }
    return static_cast<size_t>(done);
}

}  // namespace

Decoder::Decoder(Input& input) : m_input(input) {}

Decoder::~Decoder() = default;

Decoder::Conversion Decoder::conversion_of(SNDFILE* file, int sndfile_format) {
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

bool Decoder::is_deep(Conversion conversion) {
    return conversion == Conversion::unpack_24 || conversion == Conversion::upper_24 ||
           conversion == Conversion::float_to_24;
}

std::unique_ptr<Decoder> Decoder::open(Input& input, std::string* error) {
    std::unique_ptr<Decoder> decoder(new Decoder(input));
    const FlacHead head = input.is_radio() ? FlacHead{} : flac_head(input);
    input.seek(0);
    const SampleSum& sum = head.sum;
    if (is_foreign_reader() || head.bits > kMostBits) {
        decoder->m_foreign =
            is_foreign_reader() ? open_foreign_sound(input, error) : open_flac_sound(input, error);
        if (!decoder->m_foreign) {
            return nullptr;
        }
        decoder->m_info = describe(decoder->m_foreign->info());
        decoder->m_info.sum = sum;
        return decoder;
    }
    if (!decoder->open(error)) {
        return nullptr;
    }
    decoder->m_info.sum = decoder->m_pieces.size() > 1 ? SampleSum{} : sum;
    return decoder;
}

bool Decoder::open(std::string* error) {
    for (const auto& [begin, end] : ogg_pieces(m_input)) {
        m_pieces.push_back({begin, end, 0});
    }
    SF_INFO raw{};
    m_sound = SndfileSound::open(m_input, &raw, present_bytes());
    if (!m_sound) {
        *error = sf_strerror(nullptr);
        return false;
    }
    m_conversion = conversion_of(m_sound->file(), raw.format);
    m_info = describe(*m_sound, raw, is_deep(m_conversion));
    const int encoding = raw.format & SF_FORMAT_SUBMASK;
    const bool is_in_ogg_order = encoding == SF_FORMAT_VORBIS || encoding == SF_FORMAT_OPUS;
    m_order = is_in_ogg_order ? ogg_order_of(m_info.channels) : nullptr;
    if (m_pieces.size() > 1) {
        count_frames();
    }
    // A place that is told roughly leaves fewer frames behind it than are said.
    m_info.is_guess = m_info.is_guess || (has_shortcut() && shortcut().is_rough());
    return m_pieces.size() <= 1 || join();
}

// A piece that can't be read has one frame: the sound ends there with a word why.
void Decoder::count_frames() {
    m_info.frames = 0;
    for (Piece& piece : m_pieces) {
        SF_INFO raw{};
        const auto sound = SndfileSound::open(m_input, &raw, {piece.begin, piece.end});
        piece.first_frame = m_info.frames;
        const bool is_known = sound && raw.frames > 0 && raw.frames < SF_COUNT_MAX;
        m_info.frames += is_known ? static_cast<uint64_t>(raw.frames) : 1;
    }
}

ByteRange Decoder::present_bytes() const {
    return m_pieces.empty() ? ByteRange{}
                            : ByteRange{m_pieces[m_piece].begin, m_pieces[m_piece].end};
}

size_t Decoder::read_frames(void* block, size_t capacity_bytes) {
    // Lossy samples are read as 4-byte numbers before they are narrowed.
    const bool narrows = m_conversion == Conversion::float_to_16;
    const size_t read_bytes = narrows ? 2 * m_info.frame_bytes() : m_info.frame_bytes();
    const auto frames = static_cast<sf_count_t>(capacity_bytes / read_bytes);
    SNDFILE* const file = m_sound->file();
    sf_count_t got = 0;
    switch (m_conversion) {
        case Conversion::unpack_24:
            return read_packed_24(file, block, capacity_bytes, m_info.channels);
        case Conversion::none_16:
            got = sf_readf_short(file, static_cast<short*>(block), frames);
            break;
        case Conversion::upper_24:
            got = sf_readf_int(file, static_cast<int*>(block), frames);
            break;
        case Conversion::float_to_24:
            got = sf_readf_float(file, static_cast<float*>(block), frames);
            break;
        case Conversion::float_to_16:
            return read_lossy(file, static_cast<float*>(block), frames, m_info.channels);
    }
    return got <= 0 ? 0 : static_cast<size_t>(got);
}

// A radio's next stream, or the present piece, which has to be of the same format.
bool Decoder::join() {
    m_sound.reset();
    m_join_error.clear();
    SF_INFO raw{};
    auto sound = SndfileSound::open(m_input, &raw, present_bytes());
    if (!sound) {
        m_join_error = sf_strerror(nullptr);
        return false;
    }
    const Conversion conversion = conversion_of(sound->file(), raw.format);
    const SoundInfo next = describe(*sound, raw, is_deep(conversion));
    if (conversion != m_conversion || next.rate_hz != m_info.rate_hz ||
        next.channels != m_info.channels) {
        m_join_error = "it goes on in another format";
        return false;
    }
    m_sound = std::move(sound);
    if (m_input.is_radio() && !next.title.empty()) {
        m_new_texts = {next.title, next.artist};
    }
    return true;
}

bool Decoder::go_on() {
    const bool has_piece = m_piece + 1 < m_pieces.size();
    m_piece += has_piece ? 1 : 0;
    return (has_piece || m_input.is_radio()) && !m_input.has_failed() && join();
}

size_t Decoder::read(void* block, size_t capacity_bytes) {
    if (m_foreign) {
        return m_foreign->read(block, capacity_bytes / m_info.frame_bytes()) * m_info.frame_bytes();
    }
    if (!m_sound) {
        return 0;  // it could not go on
    }
    size_t frames = read_frames(block, capacity_bytes);
    if (frames == 0 && go_on()) {
        frames = read_frames(block, capacity_bytes);
    }
    m_place += frames;
    m_seen_to = std::max(m_seen_to, m_place);
    const size_t samples = frames * m_info.channels;
    if (m_conversion == Conversion::upper_24) {
        convert_in_place<int32_t, int32_t>(block, samples, [](int32_t s) { return s >> 8; });
    } else if (m_conversion == Conversion::float_to_24) {
        convert_in_place<float, int32_t>(block, samples, to_integer<24>);
    } else if (m_conversion == Conversion::float_to_16) {
        convert_in_place<float, int16_t>(
            block, samples, [](float s) { return static_cast<int16_t>(to_integer<16>(s)); });
        if (m_order != nullptr) {
            put_in_order(static_cast<int16_t*>(block), frames, m_info.channels, m_order);
        }
    }
    return frames * m_info.frame_bytes();
}

bool Decoder::has_shortcut() const {
    SF_INFO raw{};
    sf_command(m_sound->file(), SFC_GET_CURRENT_SF_INFO, &raw, sizeof raw);
    return !m_input.is_at_hand() && m_info.is_seekable &&
           raw.format == (SF_FORMAT_MPEG | SF_FORMAT_MPEG_LAYER_III);
}

MpegShortcut& Decoder::shortcut() {
    if (!m_shortcut) {
        const uint64_t place = m_input.position();
        m_shortcut = std::make_unique<MpegShortcut>(m_input);
        m_input.seek(place);
    }
    return *m_shortcut;
}

// False: the sound is lost. It is opened anew for a place, as MpegShortcut asks for.
bool Decoder::take_shortcut(uint64_t frame) {
    const bool is_seen = m_seen_from <= frame && frame <= m_seen_to;
    const bool is_beyond = frame > m_info.frames && !m_info.is_guess;
    if (is_seen || is_beyond || !has_shortcut() || (!shortcut().is_open() && m_seen_from == 0)) {
        return true;
    }
    const uint64_t from = frame < m_seen_from ? 0 : m_input.position();
    const auto jump = m_shortcut->is_open() ? m_shortcut->find(frame, from) : std::nullopt;
    if (!jump && frame >= m_seen_from) {
        return true;
    }
    SF_INFO raw{};
    m_sound.reset();
    m_shortcut->restart();
    m_sound = SndfileSound::open(*m_shortcut, &raw);
    m_shortcut->take(jump);
    m_seen_from = m_seen_to = jump ? jump->real_from : 0;
    return m_sound != nullptr;
}

std::optional<uint64_t> Decoder::seek(uint64_t frame) {
    if (m_foreign) {
        return m_foreign->seek(frame) ? std::optional(frame) : std::nullopt;
    }
    if (!go_to_piece_of(frame) || !take_shortcut(frame)) {
        return std::nullopt;
    }
    const uint64_t first = m_pieces.empty() ? 0 : m_pieces[m_piece].first_frame;
    const sf_count_t reached = m_sound->go_to(static_cast<sf_count_t>(frame - first));
    if (reached < 0) {
        return std::nullopt;
    }
    m_place = first + static_cast<uint64_t>(reached);
    m_seen_to = std::max(m_seen_to, m_place);
    return m_place;
}

bool Decoder::go_to_piece_of(uint64_t frame) {
    size_t piece = m_pieces.empty() ? 0 : m_pieces.size() - 1;
    for (; piece > 0 && m_pieces[piece].first_frame > frame; --piece) {
    }
    if (m_pieces.empty() || (piece == m_piece && m_sound)) {
        return m_sound != nullptr;
    }
    m_piece = piece;
    return join();
}

std::optional<Decoder::Texts> Decoder::take_new_texts() {
    return m_foreign ? m_foreign->take_new_texts() : std::exchange(m_new_texts, std::nullopt);
}

std::string Decoder::last_error() const {
    if (m_foreign) {
        return m_foreign->last_error();
    }
    SNDFILE* const file = m_sound ? m_sound->file() : nullptr;
    if (file == nullptr) {
        return m_join_error;
    }
    return sf_error(file) == SF_ERR_NO_ERROR ? "" : sf_strerror(file);
}

}  // namespace nuvio::reader
