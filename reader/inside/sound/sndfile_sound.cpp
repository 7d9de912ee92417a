#include "reader/inside/sound/sndfile_sound.h"

#include <algorithm>
#include <cstddef>
#include <cstdio>
#include <string>
#include <string_view>

#include "reader/inside/sound/mpeg_sync.h"

namespace nuvio::reader {

namespace {

// What an input of unknown length says: libsndfile asks for one, and goes to the end of some
// formats, which then fails.
constexpr sf_count_t kUnknownLength = sf_count_t{1} << 60;
// Further ahead nobody goes in an input of unknown length.
constexpr uint64_t kMaxStep = uint64_t{1} << 20;

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

}  // namespace

// libsndfile believes it and no more: sound that a head announces behind it is left off.
sf_count_t SndfileSound::length(void* data) {
    const auto length = self(data).m_input.length();
    return length ? static_cast<sf_count_t>(*length) : kUnknownLength;
}

// Of a source that broke off the end: libsndfile's parsers look at the place alone before they go
// on with a head, and would note the chunk that they stand in again and again, without end.
sf_count_t SndfileSound::position(void* data) {
    if (self(data).m_is_broken) {
        return length(data);
    }
    return static_cast<sf_count_t>(self(data).m_input.position() - self(data).m_first);
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
    const uint64_t place = static_cast<uint64_t>(wanted) + sound.m_first;
    if (wanted < 0 || sound.m_is_over || (!input.length() && place > input.position() + kMaxStep)) {
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
    const size_t got = sound.m_input.read(to, static_cast<size_t>(size));
    sound.m_is_broken = got < static_cast<size_t>(size) && sound.m_input.has_failed();
    const auto count = static_cast<std::ptrdiff_t>(got);
    const auto end =
        sound.m_ogg ? sound.m_ogg->find({static_cast<const char*>(to), got}) : std::nullopt;
    if (!end) {
        return count;
    }
    sound.m_is_over = true;
    sound.m_input.seek(sound.m_input.position() - static_cast<uint64_t>(count - *end));
    return std::max<std::ptrdiff_t>(*end, 0);
}

std::unique_ptr<SndfileSound> SndfileSound::open(Input& input, SF_INFO* info) {
    *info = {};
    std::unique_ptr<SndfileSound> sound(new SndfileSound(input));
    if (input.is_radio()) {
        if (find_sound(input)) {
            sound->m_ogg.emplace();
        }
        sound->m_first = input.position();
    }
    SF_VIRTUAL_IO io{};
    io.get_filelen = length;
    io.seek = seek;
    io.read = read;
    io.tell = position;
    sound->m_file.reset(sf_open_virtual(&io, SFM_READ, info, sound.get()));
    if (!sound->m_file) {
        return nullptr;
    }
    sound->m_is_endless = input.is_radio() || (!input.length() && info->frames > kUnknownLength);
    if (sound->m_is_endless) {
        info->seekable = 0;
    }
    return sound;
}

}  // namespace nuvio::reader
