// The window of a remote file that is in memory: a ring of bounded size that is filled at its end
// and read at a position inside. The last bytes that were read are kept, for decoders go back a
// little while they look at a file's head. Not synchronised: its owner locks.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string_view>

namespace local_core {

class StreamBuffer {
  public:
    // Bytes. Memory is taken with the first byte, and its pages as they are filled.
    explicit StreamBuffer(size_t capacity);

    uint64_t begin() const { return m_begin; }
    uint64_t end() const { return m_end; }
    size_t capacity() const { return m_capacity; }

    // Empties it; the next byte that is appended is the file's byte `offset`.
    void restart_at(uint64_t offset) { m_begin = m_end = offset; }

    // How many bytes append() takes while the reader is at `position`, which may be outside.
    size_t room(uint64_t position) const;
    // No more than room(position).
    void append(std::string_view bytes, uint64_t position);

    // Copies what is there from `position` on, at most `size` bytes; returns how many, 0 when
    // `position` is outside.
    size_t copy(uint64_t position, void* to, size_t size) const;

  private:
    uint64_t kept_from(uint64_t position) const;

    size_t m_capacity;
    std::unique_ptr<char[]> m_ring;
    uint64_t m_begin = 0;
    uint64_t m_end = 0;
};

}  // namespace local_core
