#include "local/network/stream_buffer.h"

#include <algorithm>
#include <cstring>

namespace local_core {

namespace {

// A piece of libcurl's always fits beside what is kept.
constexpr size_t kMinCapacity = size_t{128} * 1024;
constexpr size_t kMaxKept = size_t{64} * 1024;

}  // namespace

StreamBuffer::StreamBuffer(size_t capacity) : m_capacity(std::max(capacity, kMinCapacity)) {}

uint64_t StreamBuffer::kept_from(uint64_t position) const {
    return std::clamp(position - std::min<uint64_t>(position, kMaxKept), m_begin, m_end);
}

size_t StreamBuffer::room(uint64_t position) const {
    // Nothing is kept of what lies before a place that is being read on to.
    const uint64_t kept = position > m_end ? m_end : kept_from(position);
    return m_capacity - static_cast<size_t>(m_end - kept);
}

void StreamBuffer::append(std::string_view bytes, uint64_t position) {
    if (m_ring == nullptr) {
        m_ring = std::make_unique_for_overwrite<char[]>(m_capacity);
    }
    const uint64_t needed_from =
        m_end + bytes.size() - std::min<uint64_t>(m_end + bytes.size(), m_capacity);
    m_begin = position > m_end ? m_end : std::max(m_begin, needed_from);
    while (!bytes.empty()) {
        const auto at = static_cast<size_t>(m_end % m_capacity);
        const std::string_view piece = bytes.substr(0, m_capacity - at);
        std::memcpy(m_ring.get() + at, piece.data(), piece.size());
        m_end += piece.size();
        bytes.remove_prefix(piece.size());
    }
}

size_t StreamBuffer::copy(uint64_t position, void* to, size_t size) const {
    if (position < m_begin || position >= m_end) {
        return 0;
    }
    const auto count = static_cast<size_t>(std::min<uint64_t>(size, m_end - position));
    const auto at = static_cast<size_t>(position % m_capacity);
    const size_t first = std::min(count, m_capacity - at);
    std::memcpy(to, m_ring.get() + at, first);
    std::memcpy(static_cast<char*>(to) + first, m_ring.get(), count - first);
    return count;
}

}  // namespace local_core
