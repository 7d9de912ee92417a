#include "local/base/files.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <sstream>
#include <system_error>

#include "common/environment.h"

namespace local_core {

namespace {

constexpr char kDefaultMusicFolders[] =
    "/home:/media:/mnt:/run/media:/srv:/var/lib/nuvio-connect/music:/var/lib/mpd/music";

std::string error_text(int code) {
    return std::generic_category().message(code);
}

// Where the descriptor's file can be opened once more, and its path be read.
std::string place_of(const nuvio::UniqueFd& file) {
    return "/proc/self/fd/" + std::to_string(file.get());
}

bool is_below(const std::filesystem::path& path, const std::filesystem::path& folder) {
    const std::filesystem::path base = folder.has_filename() ? folder : folder.parent_path();
    return !folder.empty() &&
           std::mismatch(base.begin(), base.end(), path.begin(), path.end()).first == base.end();
}

}  // namespace

const std::vector<std::string>& music_folders() {
    // Never destroyed: a thread that hangs may outlive the process's end of the rest.
    static const auto* const folders = new std::vector<std::string>([] {
        std::istringstream list(
            nuvio::environment_text("NUVIO_MUSIC_FOLDERS", kDefaultMusicFolders));
        std::vector<std::string> found;
        for (std::string folder; std::getline(list, folder, ':');) {
            if (folder.starts_with('/')) {
                found.push_back(folder);
            }
        }
        return found;
    }());
    return *folders;
}

nuvio::UniqueFd look_at(const std::string& path, std::string* error) {
    nuvio::UniqueFd place(open(path.c_str(), O_PATH | O_CLOEXEC));
    if (!place) {
        *error = error_text(errno);
        return {};
    }
    std::error_code failure;
    const std::filesystem::path real = std::filesystem::read_symlink(place_of(place), failure);
    const bool allowed = std::ranges::any_of(music_folders(), [&](const std::string& folder) {
        std::error_code missing;
        return is_below(real, folder) ||
               is_below(real, std::filesystem::canonical(folder, missing));
    });
    if (!allowed) {
        *error = "not below a music folder";
        return {};
    }
    return place;
}

nuvio::UniqueFd open_regular_file(const std::string& path, std::string* error) {
    const nuvio::UniqueFd place = look_at(path, error);
    struct stat status {};
    if (!place) {
        return {};
    }
    if (fstat(place.get(), &status) != 0 || !S_ISREG(status.st_mode)) {
        *error = "not a regular file";
        return {};
    }
    nuvio::UniqueFd file(open(place_of(place).c_str(), O_RDONLY | O_CLOEXEC));
    if (!file) {
        *error = error_text(errno);
    }
    return file;
}

}  // namespace local_core
