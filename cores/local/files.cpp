#include "local/files.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>

namespace local_core {

namespace {

std::string error_text(int code) {
    return std::generic_category().message(code);
}

}  // namespace

nuvio::UniqueFd open_regular_file(const std::string& path, std::string* error) {
    // O_NONBLOCK: opening a FIFO would otherwise wait for a writer.
    nuvio::UniqueFd file(open(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
    struct stat status {};
    if (!file || fstat(file.get(), &status) != 0) {
        *error = error_text(errno);
        return {};
    }
    if (!S_ISREG(status.st_mode)) {
        *error = "not a regular file";
        return {};
    }
    return file;
}

std::optional<std::string> read_file(const std::string& path, size_t max_bytes,
                                     std::string* error) {
    const nuvio::UniqueFd file = open_regular_file(path, error);
    if (!file) {
        return std::nullopt;
    }
    std::string text;
    char buffer[16384];
    while (text.size() < max_bytes) {
        const ssize_t got = read(file.get(), buffer, sizeof buffer);
        if (got < 0 && errno == EINTR) {
            continue;
        }
        if (got < 0) {
            *error = error_text(errno);
            return std::nullopt;
        }
        if (got == 0) {
            break;
        }
        text.append(buffer, static_cast<size_t>(got));
    }
    text.resize(text.size() < max_bytes ? text.size() : max_bytes);
    return text;
}

}  // namespace local_core
