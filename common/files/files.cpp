#include "common/files/files.h"

#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <system_error>

namespace nuvio {

namespace {

// A file that isn't there yet, and is removed again unless it is kept.
class Draft {
  public:
    Draft(const std::string& path, mode_t mode)
        : m_path(path),
          m_file(::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, mode)),
          m_error(m_file ? 0 : errno) {}
    ~Draft() {
        if (m_file && !m_is_kept) {
            ::unlink(m_path.c_str());
        }
    }
    Draft(const Draft&) = delete;
    Draft& operator=(const Draft&) = delete;

    // 0, or why there is none.
    int error() const { return m_error; }
    int fd() const { return m_file.get(); }
    void keep() { m_is_kept = true; }

    int write(std::string_view text) {
        while (!text.empty()) {
            const ssize_t written = ::write(fd(), text.data(), text.size());
            if (written < 0 && errno != EINTR) {
                return errno;
            }
            text.remove_prefix(written < 0 ? 0 : static_cast<size_t>(written));
        }
        return 0;
    }

  private:
    const std::string m_path;
    const UniqueFd m_file;
    const int m_error;
    bool m_is_kept = false;
};

// Gives the file owner and mode of the one that it replaces: whoever may read that one may read
// this one, and nobody else. Asks the kernel for no more than that takes; a unit may be allowed to
// change no owner.
int take_after(int fd, const struct stat& old) {
    struct stat now {};
    const bool done = ::fstat(fd, &now) == 0 &&
                      ((now.st_uid == old.st_uid && now.st_gid == old.st_gid) ||
                       ::fchown(fd, old.st_uid, old.st_gid) == 0) &&
                      (now.st_mode == old.st_mode || ::fchmod(fd, old.st_mode & 07777) == 0);
    return done ? 0 : errno;
}

// Makes the rename itself last; a file system that cannot is no reason to fail.
void sync_folder(const std::string& folder) {
    const UniqueFd fd(::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (fd) {
        ::fsync(fd.get());
    }
}

FileText failed(int error) {
    FileText result;
    result.error = error;
    return result;
}

}  // namespace

std::string_view FileText::whole_lines() const {
    return std::string_view(text).substr(0, cut ? text.rfind('\n') + 1 : text.size());
}

FileText read_file(const UniqueFd& file, size_t limit) {
    struct stat info {};
    if (::fstat(file.get(), &info) != 0) {
        return failed(errno);
    }
    if (!S_ISREG(info.st_mode)) {
        return failed(EINVAL);
    }
    FileText result;
    std::array<char, 16384> buffer;
    while (result.text.size() <= limit) {
        const ssize_t count = ::read(file.get(), buffer.data(), buffer.size());
        if (count < 0 && errno == EINTR) {
            continue;
        }
        if (count < 0) {
            return failed(errno);
        }
        if (count == 0) {
            return result;
        }
        result.text.append(buffer.data(), static_cast<size_t>(count));
    }
    result.cut = true;
    result.text.resize(limit);
    return result;
}

FileText read_file(const std::string& path, size_t limit) {
    const UniqueFd file(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    return file ? read_file(file, limit) : failed(errno);
}

int make_file(const std::string& path, std::string_view text) {
    Draft draft(path, 0644);
    const int error = draft.error() != 0 ? draft.error() : draft.write(text);
    if (error == 0) {
        draft.keep();
    }
    return error;
}

int replace_file(const std::string& path, std::string_view text, mode_t mode) {
    const std::string folder = std::filesystem::path(path).parent_path();
    std::error_code failure;
    std::filesystem::create_directories(folder, failure);
    if (failure) {
        return failure.value();
    }
    struct stat old {};
    const bool is_there = ::stat(path.c_str(), &old) == 0;
    const std::string beside = path + ".new";
    ::unlink(beside.c_str());  // what a power cut has left
    Draft draft(beside, is_there ? old.st_mode & 0777 : mode);
    int error = draft.error();
    error = error != 0 || !is_there ? error : take_after(draft.fd(), old);
    error = error != 0 ? error : draft.write(text);
    if (error == 0 && (::fsync(draft.fd()) != 0 || ::rename(beside.c_str(), path.c_str()) != 0)) {
        error = errno;
    }
    if (error == 0) {
        draft.keep();
        sync_folder(folder);
    }
    return error;
}

}  // namespace nuvio
