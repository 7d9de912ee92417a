// Owns one file descriptor, or none; it is closed with the object. One owner, any thread.
#pragma once

#include <unistd.h>

#include <cerrno>
#include <utility>

namespace nuvio {

class UniqueFd {
  public:
    UniqueFd() = default;
    // A negative number, as a failed open() returns, is none.
    explicit UniqueFd(int fd) : m_fd(fd) {}
    UniqueFd(UniqueFd&& other) noexcept : m_fd(other.release()) {}
    UniqueFd& operator=(UniqueFd&& other) noexcept {
        std::swap(m_fd, other.m_fd);
        return *this;
    }
    UniqueFd(const UniqueFd&) = delete;
    UniqueFd& operator=(const UniqueFd&) = delete;
    ~UniqueFd() { reset(); }

    // Negative when none is held.
    int get() const { return m_fd; }
    explicit operator bool() const { return m_fd >= 0; }
    // The caller closes it from now on.
    int release() { return std::exchange(m_fd, -1); }
    // Leaves errno alone, so that a failed step can report it after what came before is released.
    void reset() {
        if (m_fd >= 0) {
            const int error = errno;
            ::close(release());
            errno = error;
        }
    }

  private:
    int m_fd = -1;
};

}  // namespace nuvio
