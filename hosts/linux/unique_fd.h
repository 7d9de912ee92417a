// UniqueFd: owns one file descriptor, closed when the object goes.
#pragma once

#include <unistd.h>

#include <utility>

namespace nuvio::host {

class UniqueFd {
  public:
    UniqueFd() = default;
    explicit UniqueFd(int fd) : m_fd(fd) {}
    UniqueFd(UniqueFd&& other) noexcept : m_fd(std::exchange(other.m_fd, -1)) {}
    UniqueFd& operator=(UniqueFd&& other) noexcept {
        std::swap(m_fd, other.m_fd);
        return *this;
    }
    UniqueFd(const UniqueFd&) = delete;
    UniqueFd& operator=(const UniqueFd&) = delete;
    ~UniqueFd() {
        if (m_fd >= 0) {
            ::close(m_fd);
        }
    }

    // -1 when none is held.
    int get() const { return m_fd; }
    explicit operator bool() const { return m_fd >= 0; }

  private:
    int m_fd = -1;
};

}  // namespace nuvio::host
