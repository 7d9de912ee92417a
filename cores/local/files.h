// Opening files that a controller names: never blocks on a FIFO or a device, never leaks into a
// child process.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <utility>

namespace local_core {

// Owns a file descriptor.
class FileDescriptor {
  public:
    explicit FileDescriptor(int fd = -1) : m_fd(fd) {}
    FileDescriptor(FileDescriptor&& other) noexcept : m_fd(std::exchange(other.m_fd, -1)) {}
    FileDescriptor& operator=(FileDescriptor&& other) noexcept {
        std::swap(m_fd, other.m_fd);
        return *this;
    }
    FileDescriptor(const FileDescriptor&) = delete;
    FileDescriptor& operator=(const FileDescriptor&) = delete;
    ~FileDescriptor();

    bool valid() const { return m_fd >= 0; }
    int get() const { return m_fd; }
    int release() { return std::exchange(m_fd, -1); }

  private:
    int m_fd;
};

// Opens a regular file for reading. Not valid, with *error set, when that fails or `path` names
// anything else.
FileDescriptor open_regular_file(const std::string& path, std::string* error);

// The file's first `max_bytes` bytes; none, with *error set, when it can't be read.
std::optional<std::string> read_file(const std::string& path, size_t max_bytes, std::string* error);

}  // namespace local_core
