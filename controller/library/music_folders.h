// The folders whose music is offered, and the only way to their files. Nothing outside of them is
// opened: a path is walked name by name, links are not followed, and what is neither a folder nor a
// regular file is looked at, not opened (a FIFO's writer would go on, a device be armed).
//
// Disks    each call begins at the folder's path, so a disk may come and go; none is held.
// Threads  immutable once made; any thread. Each call may wait for the disk.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "common/unique_fd.h"

namespace nuvio::controller {

// Of a path below a music folder the folder that it is in, with '/' at its end; empty: the music
// folder itself.
inline std::string parent_of(std::string_view below) {
    const size_t slash = below.rfind('/');
    return std::string(below.substr(0, slash == std::string_view::npos ? 0 : slash + 1));
}

// `folder` is "/" or has no '/' at its end.
inline bool is_within(std::string_view path, std::string_view folder) {
    return path.starts_with(folder) &&
           (path.size() == folder.size() || folder.ends_with('/') || path[folder.size()] == '/');
}

// Paths below a folder are relative, their names joined by '/'; empty is the folder itself.
class MusicFolders {
  public:
    // The paths are made absolute. One that is no folder now is said in the log: a disk may be
    // missing today.
    explicit MusicFolders(const std::vector<std::string>& paths);

    size_t count() const { return m_paths.size(); }
    const std::string& path(size_t folder) const { return m_paths[folder]; }
    const std::vector<std::string>& paths() const { return m_paths; }

    std::optional<size_t> index_of(std::string_view path) const;

    // None where there is no such thing, it is of another kind, or a link is on the way below the
    // music folder.
    UniqueFd open_folder(size_t folder, std::string_view below) const;
    UniqueFd open_file(size_t folder, std::string_view below) const;

    // Which folder a path of this machine lies in, and the path below it.
    struct Place {
        size_t folder;
        std::string below;
    };
    // Empty where it lies in none, links resolved.
    std::vector<Place> places_of(const std::string& path) const;

  private:
    UniqueFd walk(size_t folder, std::string_view below, int flags) const;

    std::vector<std::string> m_paths;
};

}  // namespace nuvio::controller
