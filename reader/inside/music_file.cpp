#include "reader/inside/music_file.h"

#include <unistd.h>

#include <algorithm>

namespace nuvio::reader {

FileBytes::FileBytes(const UniqueFd& file)
    : TaggedBytes(static_cast<long>(lseek(file.get(), 0, SEEK_END))), m_file(file.get()) {}

size_t FileBytes::read_at(long place, char* to, size_t count) {
    return static_cast<size_t>(std::max<ssize_t>(pread(m_file, to, count, place), 0));
}

TagLib::ByteVector TaggedBytes::readBlock(unsigned long length) {
    const auto left = static_cast<unsigned long>(std::max(m_length - m_place, 0L));
    const auto wanted = static_cast<unsigned>(std::min(length, left));
    TagLib::ByteVector bytes(wanted, 0);
    bytes.resize(wanted == 0 ? 0 : static_cast<unsigned>(read_at(m_place, bytes.data(), wanted)));
    m_place += static_cast<long>(bytes.size());
    return bytes;
}

void TaggedBytes::seek(long offset, Position from) {
    const long base = from == Beginning ? 0 : from == Current ? m_place : m_length;
    long place = 0;
    if (!__builtin_add_overflow(base, offset, &place)) {
        m_place = std::max(place, 0L);
    }
}

}  // namespace nuvio::reader
