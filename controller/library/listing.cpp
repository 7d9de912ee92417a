#include "controller/library/listing.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <memory>

#include "common/fnv1a.h"
#include "common/music/names.h"
#include "common/released_by.h"

namespace nuvio::controller {

namespace {

// Another number for other sheets: any of them may name any file.
int64_t state_of(const std::map<std::string, Catalogue::KnownFile>& sheets) {
    uint64_t state = sheets.empty() ? 0 : kFnv1aStart;
    for (const auto& [name, sheet] : sheets) {
        state = fnv1a(state, name + "/" + std::to_string(sheet.size) + "/" +
                                 std::to_string(sheet.modified_ns) + "/");
    }
    return static_cast<int64_t>(state);
}

}  // namespace

bool read_listing(UniqueFd fd, Listing* listing) {
    const std::unique_ptr<DIR, ReleasedBy<closedir>> folder(fdopendir(fd.get()));
    if (folder == nullptr) {
        return false;
    }
    const int folder_fd = fd.release();  // the DIR's now
    struct stat own {};
    if (fstat(folder_fd, &own) != 0) {
        return false;
    }
    listing->device = static_cast<int64_t>(own.st_dev);
    errno = 0;
    while (const dirent* entry = readdir(folder.get())) {
        const std::string name = entry->d_name;
        struct stat status {};
        if (name.starts_with('.') ||
            fstatat(folder_fd, name.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0) {
            continue;
        }
        if (S_ISDIR(status.st_mode)) {
            listing->folders.insert(name);
        } else if (S_ISREG(status.st_mode) && audio_kind_of(name) != nullptr) {
            listing->files[name] = {status.st_size, nanoseconds(status.st_mtim)};
        } else if (S_ISREG(status.st_mode) && is_sheet_name(name)) {
            listing->sheets[name] = {status.st_size, nanoseconds(status.st_mtim)};
        } else if (S_ISREG(status.st_mode) && is_playlist_name(name)) {
            listing->playlists.insert(name);
        }
        errno = 0;
    }
    const bool is_whole = errno == 0;
    const int64_t sheets = state_of(listing->sheets);
    for (auto& [name, file] : listing->files) {
        file.sheets = sheets;
    }
    return is_whole;
}

int64_t nanoseconds(const timespec& time) {
    return int64_t{time.tv_sec} * 1'000'000'000 + time.tv_nsec;
}

}  // namespace nuvio::controller
