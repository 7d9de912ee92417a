#include "controller/library/music_folders.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <filesystem>
#include <system_error>

#include "controller/base/log.h"

namespace nuvio::controller {

namespace {

// `folder` is "/" or has no '/' at its end.
bool starts_with_folder(std::string_view path, std::string_view folder) {
    return path.starts_with(folder) &&
           (path.size() == folder.size() || folder.ends_with('/') || path[folder.size()] == '/');
}

}  // namespace

MusicFolders::MusicFolders(const std::vector<std::string>& paths) {
    for (const std::string& path : paths) {
        std::error_code error;
        const std::string real = std::filesystem::canonical(path, error);
        UniqueFd fd(error ? -1 : open(real.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
        if (fd) {
            m_folders.push_back({real, std::move(fd)});
        } else {
            log_line(LogLevel::warning, "No folder, so no music from it: " + path);
        }
    }
}

std::optional<size_t> MusicFolders::index_of(std::string_view path) const {
    const auto found = std::ranges::find(m_folders, path, &Folder::path);
    return found == m_folders.end() ? std::nullopt
                                    : std::optional(static_cast<size_t>(found - m_folders.begin()));
}

UniqueFd MusicFolders::walk(size_t folder, std::string_view below, int flags) const {
    const UniqueFd* at = &m_folders[folder].fd;
    UniqueFd held;
    while (true) {
        const size_t end = below.find('/');
        const std::string name(below.substr(0, end));
        const bool is_last = end == std::string_view::npos;
        if (name == ".." || name.find('\0') != std::string::npos || (name.empty() && !is_last)) {
            return {};
        }
        held = UniqueFd(openat(at->get(), name.empty() ? "." : name.c_str(),
                               O_NOFOLLOW | O_CLOEXEC | (is_last ? flags : O_PATH | O_DIRECTORY)));
        if (is_last || !held) {
            return held;
        }
        at = &held;
        below.remove_prefix(end + 1);
    }
}

UniqueFd MusicFolders::open_folder(size_t folder, std::string_view below) const {
    return walk(folder, below, O_RDONLY | O_DIRECTORY);
}

UniqueFd MusicFolders::open_file(size_t folder, std::string_view below) const {
    const UniqueFd place = walk(folder, below, O_PATH);
    struct stat status {};
    if (!place || fstat(place.get(), &status) != 0 || !S_ISREG(status.st_mode)) {
        return {};
    }
    return UniqueFd(
        open(("/proc/self/fd/" + std::to_string(place.get())).c_str(), O_RDONLY | O_CLOEXEC));
}

std::vector<MusicFolders::Place> MusicFolders::places_of(const std::string& path) const {
    std::error_code error;
    const std::string real = std::filesystem::canonical(path, error);
    std::vector<Place> places;
    for (size_t i = 0; !error && i < m_folders.size(); ++i) {
        const std::string& folder = m_folders[i].path;
        if (starts_with_folder(real, folder)) {
            std::string below = real.substr(folder.size());
            below.erase(0, below.starts_with('/') ? 1 : 0);
            places.push_back({i, std::move(below)});
        }
    }
    return places;
}

}  // namespace nuvio::controller
