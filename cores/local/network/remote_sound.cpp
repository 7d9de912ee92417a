#include "local/network/remote_sound.h"

#include <cstdio>
#include <string>

#include "local/network/mpeg_sync.h"

namespace local_core {

namespace {

// What a source of unknown length says: libsndfile asks for one, and goes to the end of some
// formats, which then fails.
constexpr sf_count_t kUnknownLength = sf_count_t{1} << 60;
// Further ahead nobody goes in a source of unknown length.
constexpr uint64_t kMaxStep = uint64_t{1} << 20;

// Where the sound of a radio begins, which may be in the middle of a frame.
uint64_t first_byte_of_radio(HttpSource& source) {
    std::string head(kMpegHeadBytes, '\0');
    head.resize(source.read(head.data(), head.size()));
    const size_t first = head.starts_with("OggS") ? 0 : first_mpeg_frame(head);
    return source.seek(first) ? first : source.position();
}

}  // namespace

sf_count_t RemoteSound::length(void* data) {
    const auto length = self(data).m_source.length();
    return length ? static_cast<sf_count_t>(*length) : kUnknownLength;
}

sf_count_t RemoteSound::position(void* data) {
    return static_cast<sf_count_t>(self(data).m_source.position() - self(data).m_first);
}

sf_count_t RemoteSound::seek(sf_count_t offset, int whence, void* data) {
    HttpSource& source = self(data).m_source;
    const sf_count_t from = whence == SEEK_CUR   ? position(data)
                            : whence == SEEK_END ? length(data)
                                                 : 0;
    const sf_count_t wanted = from + offset;
    const uint64_t place = static_cast<uint64_t>(wanted) + self(data).m_first;
    if (wanted < 0 || (!source.length() && place > source.position() + kMaxStep)) {
        return -1;
    }
    return source.seek(place) ? wanted : -1;
}

sf_count_t RemoteSound::read(void* to, sf_count_t size, void* data) {
    const size_t wanted = size > 0 ? static_cast<size_t>(size) : 0;
    return static_cast<sf_count_t>(self(data).m_source.read(to, wanted));
}

std::unique_ptr<RemoteSound> RemoteSound::open(HttpSource& source, SF_INFO* info) {
    *info = {};
    const auto content = source.open();
    if (!content) {
        return nullptr;
    }
    std::unique_ptr<RemoteSound> sound(new RemoteSound(source));
    if (content->is_radio) {
        sound->m_first = first_byte_of_radio(source);
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
    sound->m_is_endless = content->is_radio || (!source.length() && info->frames > kUnknownLength);
    if (sound->m_is_endless) {
        info->seekable = 0;
    }
    return sound;
}

}  // namespace local_core
