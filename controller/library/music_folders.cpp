#include "controller/library/music_folders.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <filesystem>
#include <system_error>

#include "controller/base/log.h"

namespace nuvio::controller {

namespace {

UniqueFd opened(const std::string& folder) {
    return UniqueFd(open(folder.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
}

}  // namespace

MusicFolders::MusicFolders(const std::vector<std::string>& paths) {
    for (const std::string& path : paths) {
        std::error_code error;
        const std::filesystem::path whole =
            std::filesystem::absolute(path, error).lexically_normal();
        const bool has_slash = !whole.has_filename() && whole.has_relative_path();
        m_paths.push_back(has_slash ? whole.parent_path() : whole);
        if (!opened(m_paths.back())) {
            log_line(LogLevel::warning, "No folder now, so no music from it: " + path);
        }
    }
}

std::optional<size_t> MusicFolders::index_of(std::string_view path) const {
    const auto found = std::ranges::find(m_paths, path);
    return found == m_paths.end() ? std::nullopt
                                  : std::optional(static_cast<size_t>(found - m_paths.begin()));
}

UniqueFd MusicFolders::walk(size_t folder, std::string_view below, int flags) const {
    UniqueFd held = opened(m_paths[folder]);
    while (true) {
        const size_t end = below.find('/');
        const std::string name(below.substr(0, end));
        const bool is_last = end == std::string_view::npos;
        if (name == ".." || name.find('\0') != std::string::npos || (name.empty() && !is_last)) {
            return {};
        }
        held = UniqueFd(openat(held.get(), name.empty() ? "." : name.c_str(),
                               O_NOFOLLOW | O_CLOEXEC | (is_last ? flags : O_PATH | O_DIRECTORY)));
        if (is_last || !held) {
            return held;
        }
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
    for (size_t i = 0; !error && i < m_paths.size(); ++i) {
        std::error_code is_missing;
        const std::string folder = std::filesystem::canonical(m_paths[i], is_missing);
        if (!is_missing && is_within(real, folder)) {
            std::string below = real.substr(folder.size());
            below.erase(0, below.starts_with('/') ? 1 : 0);
            places.push_back({i, std::move(below)});
        }
    }
    return places;
}

}  // namespace nuvio::controller
