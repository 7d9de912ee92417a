#include "base/files.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <system_error>

#include "common/unique_fd.h"

namespace nuvio::host {

namespace {

int write_all(int fd, std::string_view text) {
    while (!text.empty()) {
        const ssize_t written = ::write(fd, text.data(), text.size());
        if (written < 0 && errno != EINTR) {
            return errno;
        }
        text.remove_prefix(written < 0 ? 0 : static_cast<size_t>(written));
    }
    return ::fsync(fd) == 0 ? 0 : errno;
}

// Gives the file owner and mode of the one that it replaces: whoever may read that one may read
// this one, and nobody else. Asks the kernel for no more than that takes; the unit may change no
// owner.
int take_after(int fd, const std::string& path) {
    struct stat old {};
    struct stat now {};
    if (::stat(path.c_str(), &old) != 0) {
        return 0;
    }
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

}  // namespace

FileText read_file(const std::string& path, size_t limit) {
    FileText result;
    const UniqueFd fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    struct stat info {};
    if (!fd || ::fstat(fd.get(), &info) != 0) {
        result.error = errno;
        return result;
    }
    if (!S_ISREG(info.st_mode)) {
        result.error = EINVAL;
        return result;
    }
    std::string text(limit + 1, '\0');
    size_t have = 0;
    while (have < text.size()) {
        const ssize_t count = ::read(fd.get(), text.data() + have, text.size() - have);
        if (count < 0 && errno == EINTR) {
            continue;
        }
        if (count < 0) {
            result.error = errno;
            return result;
        }
        if (count == 0) {
            break;
        }
        have += static_cast<size_t>(count);
    }
    result.cut = have > limit;
    text.resize(result.cut ? limit : have);
    result.text = std::move(text);
    return result;
}

int replace_file(const std::string& path, std::string_view text) {
    const std::string folder = std::filesystem::path(path).parent_path();
    std::error_code failure;
    std::filesystem::create_directories(folder, failure);
    if (failure) {
        return failure.value();
    }
    const std::string draft = path + ".new";
    const UniqueFd fd(
        ::open(draft.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOFOLLOW, 0644));
    if (!fd) {
        return errno;
    }
    int error = take_after(fd.get(), path);
    error = error != 0 ? error : write_all(fd.get(), text);
    if (error == 0 && ::rename(draft.c_str(), path.c_str()) != 0) {
        error = errno;
    }
    if (error != 0) {
        ::unlink(draft.c_str());
        return error;
    }
    sync_folder(folder);
    return 0;
}

}  // namespace nuvio::host
