#include "reader/inside/music_file.h"

#include <unistd.h>

#include <algorithm>

namespace nuvio::reader {

FileBytes::FileBytes(const UniqueFd& file)
    : m_file(file.get()), m_length(static_cast<long>(lseek(m_file, 0, SEEK_END))) {}

TagLib::ByteVector FileBytes::readBlock(unsigned long length) {
    const auto left = static_cast<unsigned long>(std::max(m_length - m_place, 0L));
    const auto wanted = static_cast<unsigned>(std::min(length, left));
    TagLib::ByteVector bytes(wanted, 0);
    const ssize_t got = wanted == 0 ? 0 : pread(m_file, bytes.data(), wanted, m_place);
    bytes.resize(static_cast<unsigned>(std::max<ssize_t>(got, 0)));
    m_place += static_cast<long>(bytes.size());
    return bytes;
}

void FileBytes::seek(long offset, Position from) {
    const long base = from == Beginning ? 0 : from == Current ? m_place : m_length;
    long place = 0;
    if (!__builtin_add_overflow(base, offset, &place)) {
        m_place = std::max(place, 0L);
    }
}

}  // namespace nuvio::reader
