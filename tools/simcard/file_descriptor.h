#ifndef SIMCARD_FILE_DESCRIPTOR_H
#define SIMCARD_FILE_DESCRIPTOR_H

#include <unistd.h>

#include <cerrno>
#include <utility>

namespace simcard {

/* Owns a descriptor, or none. Closing leaves errno alone, so that a failed step can report it after
 * what came before has been released. */
class FileDescriptor {
  public:
    FileDescriptor() = default;
    explicit FileDescriptor(int fd) : fd_(fd) {}
    FileDescriptor(FileDescriptor&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
    FileDescriptor& operator=(FileDescriptor&& other) noexcept {
        std::swap(fd_, other.fd_);
        return *this;
    }
    ~FileDescriptor() { reset(); }

    int get() const { return fd_; }
    bool valid() const { return fd_ >= 0; }
    void reset() {
        const int error = errno;
        if (fd_ >= 0)
            close(std::exchange(fd_, -1));
        errno = error;
    }

  private:
    int fd_ = -1;
};

}  // namespace simcard

#endif
