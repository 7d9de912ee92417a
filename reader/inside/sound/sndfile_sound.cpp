#include "reader/inside/sound/sndfile_sound.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdio>
#include <string>
#include <string_view>
#include <vector>

#include "reader/inside/id3_tag.h"
#include "reader/inside/sound/heads.h"
#include "reader/inside/sound/mpeg_sync.h"

namespace nuvio::reader {

namespace {

// What an input of unknown length says: libsndfile asks for one, and goes to the end of some
// formats, which then fails.
constexpr sf_count_t kUnknownLength = sf_count_t{1} << 60;
// What MPEG audio says, by whose guess more frames than kMaxGuess come of it, of few enough bits
// that they can be counted.
constexpr sf_count_t kStretchedLength = sf_count_t{1} << 50;
constexpr sf_count_t kMaxGuess = sf_count_t{1} << 40;
// Longer files are not read through before they play: a slow disk takes seconds for this many
// bytes.
constexpr uint64_t kMaxMeasured = uint64_t{32} << 20;
constexpr size_t kGuessedBy = size_t{64} << 10U;  // bytes
// Further ahead nobody goes in an input of unknown length.
constexpr uint64_t kMaxBytesLeftOut = uint64_t{1} << 20;

// Goes to where the sound of a radio begins: MPEG may be joined in the middle of a frame.
bool find_sound(Input& input) {
    constexpr std::string_view kOgg = "OggS";
    const uint64_t from = input.position();
    std::string head(kMpegHeadBytes, '\0');
    size_t got = input.read(head.data(), kOgg.size());
    const bool is_ogg = head.starts_with(kOgg);
    if (!is_ogg) {
        got += input.read(head.data() + got, head.size() - got);
        head.resize(got);
    }
    input.seek(from + (is_ogg ? 0 : first_mpeg_frame(head)));
    return is_ogg;
}

// What libsndfile may take for MPEG; what stands behind a tag need not be it.
bool may_be_mpeg(Input& input) {
    constexpr std::string_view kTag = "ID3";
    constexpr unsigned kSync = 0xe0;
    std::array<char, 3> head{};
    const uint64_t from = input.position();
    input.read(head.data(), head.size());
    input.seek(from);
    return std::string_view(head.data(), head.size()) == kTag ||
           (head[0] == '\xff' && (static_cast<unsigned char>(head[1]) & kSync) == kSync);
}

}  // namespace

std::optional<uint64_t> SndfileSound::real_length() const {
    const auto end = m_bytes.end ? m_bytes.end : m_input.length();
    return end ? std::optional(*end - std::min(*end, m_bytes.begin)) : std::nullopt;
}

// libsndfile believes it and no more: sound that a head announces behind it is left off.
sf_count_t SndfileSound::length(void* data) {
    if (self(data).m_is_stretched) {
        return kStretchedLength;
    }
    const auto length = self(data).real_length();
    return length ? static_cast<sf_count_t>(*length) : kUnknownLength;
}

// Of a source that broke off the end: libsndfile's parsers look at the place alone before they go
// on with a head, and would note the chunk that they stand in again and again, without end.
sf_count_t SndfileSound::position(void* data) {
    if (self(data).m_is_broken) {
        return length(data);
    }
    return static_cast<sf_count_t>(self(data).m_input.position() - self(data).m_bytes.begin);
}

// On -1 sf_seek fails. The parsers of heads do not look at it: they read on from where the input
// stands, and fail by what they find there.
sf_count_t SndfileSound::seek(sf_count_t offset, int whence, void* data) {
    SndfileSound& sound = self(data);
    Input& input = sound.m_input;
    const sf_count_t from = whence == SEEK_CUR   ? position(data)
                            : whence == SEEK_END ? length(data)
                                                 : 0;
    const sf_count_t wanted = from + offset;
    // What stands at the end of a stretched one, a tag, is at the real end.
    const auto length_told = static_cast<uint64_t>(length(data));
    const uint64_t too_far = whence == SEEK_END && sound.m_is_stretched
                                 ? length_told - sound.real_length().value_or(length_told)
                                 : 0;
    const uint64_t place = static_cast<uint64_t>(wanted) + sound.m_bytes.begin - too_far;
    if (wanted < 0 || sound.m_is_over ||
        (!sound.real_length() && place > input.position() + kMaxBytesLeftOut)) {
        return -1;
    }
    if (sound.m_ogg) {
        sound.m_ogg.emplace();
    }
    return input.seek(place) ? wanted : -1;
}

// Fewer bytes than asked for are the end to libsndfile, which knows of no errors here; a piece of a
// sample or number among them is lost to it. It asks again when it is asked for more sound.
sf_count_t SndfileSound::read(void* to, sf_count_t size, void* data) {
    SndfileSound& sound = self(data);
    if (size <= 0 || sound.m_is_over) {
        return 0;
    }
    const uint64_t end = sound.m_bytes.end.value_or(UINT64_MAX);
    const uint64_t left = end - std::min(end, sound.m_input.position());
    const auto wanted = static_cast<size_t>(std::min(static_cast<uint64_t>(size), left));
    const uint64_t place = sound.m_input.position();
    const size_t got = sound.m_input.read(to, wanted);
    sound.show_format(place, static_cast<char*>(to), got);
    sound.m_is_broken = got < wanted && sound.m_input.has_failed();
    const auto count = static_cast<std::ptrdiff_t>(got);
    const auto next =
        sound.m_ogg ? sound.m_ogg->find({static_cast<const char*>(to), got}) : std::nullopt;
    if (!next) {
        return count;
    }
    sound.m_is_over = true;
    sound.m_input.seek(sound.m_input.position() - static_cast<uint64_t>(count - *next));
    return std::max<std::ptrdiff_t>(*next, 0);
}

void SndfileSound::show_format(uint64_t place, char* bytes, size_t count) const {
    for (uint64_t i = 0; m_hidden_format && i < sizeof kFloatFormat; ++i) {
        const uint64_t at = *m_hidden_format + i - place;
        if (at < count) {
            bytes[at] = static_cast<char>(kFloatFormat >> (8 * i));
        }
    }
}

bool SndfileSound::open_file(SF_INFO* info) {
    *info = {};
    SF_VIRTUAL_IO io{};
    io.get_filelen = length;
    io.seek = seek;
    io.read = read;
    io.tell = position;
    m_file.reset(sf_open_virtual(&io, SFM_READ, info, this));
    return m_file != nullptr;
}

std::unique_ptr<SndfileSound> SndfileSound::open(Input& input, SF_INFO* info,
                                                 const ByteRange& bytes) {
    std::unique_ptr<SndfileSound> sound(new SndfileSound(input, bytes));
    if (input.is_radio()) {
        if (find_sound(input)) {
            sound->m_ogg.emplace();
        }
        sound->m_bytes = {input.position(), std::nullopt};
    } else if (!input.seek(bytes.begin)) {
        return nullptr;
    }
    if (!input.is_radio() && bytes.begin == 0) {
        sound->m_hidden_format = hidden_float_format(input);
    }
    sound->m_is_stretched = !input.is_radio() && input.length() && may_be_mpeg(input);
    bool is_open = sound->open_file(info);
    if (sound->m_is_stretched && (info->format & SF_FORMAT_TYPEMASK) != SF_FORMAT_MPEG) {
        sound->m_is_stretched = false;
        is_open = input.seek(bytes.begin) && sound->open_file(info);
    }
    if (!is_open) {
        return nullptr;
    }
    sound->m_is_endless = input.is_radio() || (!input.length() && info->frames > kUnknownLength);
    if (sound->m_is_endless) {
        info->seekable = 0;
    }
    if (sound->m_is_stretched && info->frames > kMaxGuess) {
        sound->find_length(info);
    }
    if (!sound->m_is_endless && info->frames == SF_COUNT_MAX &&
        (info->format & SF_FORMAT_TYPEMASK) == SF_FORMAT_FLAC) {
        sound->count_blocks(info);
    }
    sound->m_info = *info;
    return sound;
}

// In Vorbis and Opus the first frames after libsndfile's own seek are not the file's, and those of
// the last page, which counts them from its end, lie beside their place: it has to begin earlier.
sf_count_t SndfileSound::go_to(sf_count_t frame) {
    constexpr sf_count_t kRunIn = 16384;  // two of Vorbis's longest blocks
    constexpr sf_count_t kMaxPagePackets = 255;
    const int encoding = m_info.format & SF_FORMAT_SUBMASK;
    const bool is_opus = encoding == SF_FORMAT_OPUS;
    if (!is_opus && encoding != SF_FORMAT_VORBIS) {
        const sf_count_t reached = sf_seek(m_file.get(), frame, SEEK_SET);
        const bool is_flac = (m_info.format & SF_FORMAT_TYPEMASK) == SF_FORMAT_FLAC;
        return reached < 0 && is_flac && frame < m_info.frames ? approach(frame) : reached;
    }
    const sf_count_t page_frames = kMaxPagePackets * (is_opus ? 2880 : 4096);
    const sf_count_t before_last_page = std::min(frame, m_info.frames - page_frames);
    const sf_count_t from = std::max<sf_count_t>(before_last_page - kRunIn, 0);
    const bool is_begun = is_opus && from == 0 ? reopen()  // a seek leaves what was there before
                                               : sf_seek(m_file.get(), from, SEEK_SET) == from;
    return is_begun && skip(frame - from) ? frame : -1;
}

bool SndfileSound::reopen() {
    SF_INFO info{};
    m_file.reset();
    return m_input.seek(m_bytes.begin) && open_file(&info);
}

// Of a FLAC file with a tag behind its sound: libFLAC looks for a place by the file's bytes, finds
// no frame in the tag, and nothing any more from then on.
sf_count_t SndfileSound::approach(sf_count_t frame) {
    constexpr sf_count_t kLongestBlock = 65535;
    for (sf_count_t distance = kLongestBlock;; distance *= 2) {
        const sf_count_t from = std::max<sf_count_t>(frame - distance, 0);
        if (!reopen()) {
            return -1;
        }
        if (sf_seek(m_file.get(), from, SEEK_SET) == from) {
            return skip(frame - from) ? frame : -1;
        }
        if (from == 0) {
            return -1;
        }
    }
}

bool SndfileSound::skip(sf_count_t frames) const {
    constexpr sf_count_t kPieceFrames = 4096;
    std::vector<float> piece(static_cast<size_t>(kPieceFrames * m_info.channels));
    sf_count_t got = 1;
    for (; frames > 0 && got > 0; frames -= got) {
        got = sf_readf_float(m_file.get(), piece.data(), std::min(frames, kPieceFrames));
    }
    return frames == 0;
}

bool SndfileSound::has(sf_count_t frame) const {
    std::array<float, 2> samples{};  // MPEG has no more channels
    return sf_seek(m_file.get(), frame, SEEK_SET) == frame &&
           sf_readf_float(m_file.get(), samples.data(), 1) == 1;
}

// How many frames there are, fewer than `end`: on the way beyond their end libsndfile reads all
// frames' heads and notes where they stand, so that going back is quick, and exact from then on.
sf_count_t SndfileSound::measure(sf_count_t end) const {
    sf_count_t begin = 0;
    while (begin < end) {
        const sf_count_t middle = begin + (end - begin) / 2;
        if (has(middle)) {
            begin = middle + 1;
        } else {
            end = middle;
        }
    }
    sf_seek(m_file.get(), 0, SEEK_SET);
    return begin;
}

// There may be more where the last block's head is not whole.
void SndfileSound::count_blocks(SF_INFO* info) {
    const uint64_t place = m_input.position();
    if (const auto frames = flac_frames(m_input)) {
        info->frames = static_cast<sf_count_t>(*frames);
        m_is_guess = true;
    }
    m_input.seek(place);
}

// Instead of libsndfile's guess, which is of the stretched input, and by the first frame alone.
void SndfileSound::find_length(SF_INFO* info) {
    constexpr sf_count_t kMaxFramesAByte = 1152;
    const uint64_t bytes = m_input.length().value_or(0);
    m_is_guess = !m_input.is_at_hand() || bytes > kMaxMeasured;
    if (!m_is_guess) {
        info->frames = measure(static_cast<sf_count_t>(bytes) * kMaxFramesAByte);
        return;
    }
    const uint64_t place = m_input.position();
    const uint64_t begin = std::min(behind_id3(m_input), bytes);
    const double by_frames = mpeg_samples_a_byte(bytes_at(m_input, begin, kGuessedBy));
    const double by_first =
        static_cast<double>(info->frames) / static_cast<double>(kStretchedLength);
    info->frames = static_cast<sf_count_t>((by_frames > 0 ? by_frames : by_first) *
                                           static_cast<double>(bytes - begin));
    m_input.seek(place);
}

}  // namespace nuvio::reader
