#include "local/network/remote_sound.h"

#include <cstdio>

namespace local_core {

namespace {

HttpSource& source_of(void* data) {
    return *static_cast<HttpSource*>(data);
}

sf_count_t file_length(void* data) {
    return static_cast<sf_count_t>(source_of(data).length().value_or(0));
}

sf_count_t position(void* data) {
    return static_cast<sf_count_t>(source_of(data).position());
}

sf_count_t seek(sf_count_t offset, int whence, void* data) {
    const sf_count_t from = whence == SEEK_CUR   ? position(data)
                            : whence == SEEK_END ? file_length(data)
                                                 : 0;
    const sf_count_t wanted = from + offset;
    const bool is_reached = wanted >= 0 && source_of(data).seek(static_cast<uint64_t>(wanted));
    return is_reached ? wanted : -1;
}

sf_count_t read(void* to, sf_count_t size, void* data) {
    const size_t wanted = size > 0 ? static_cast<size_t>(size) : 0;
    return static_cast<sf_count_t>(source_of(data).read(to, wanted));
}

}  // namespace

RemoteSound open_remote_sound(HttpSource& source, SF_INFO* info) {
    *info = {};
    const auto content = source.open();
    if (!content || !source.length()) {
        return nullptr;
    }
    SF_VIRTUAL_IO io{};
    io.get_filelen = file_length;
    io.seek = seek;
    io.read = read;
    io.tell = position;
    return RemoteSound(sf_open_virtual(&io, SFM_READ, info, &source));
}

}  // namespace local_core
