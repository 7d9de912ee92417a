// Opening files that a controller names: what is no file is looked at, not opened (a FIFO's writer
// would go on, a watchdog be armed), nothing is read outside of the music folders, and nothing
// leaks into a child process. Any thread; each call may block on the disk, but for the first.
#pragma once

#include <string>
#include <vector>

#include "common/unique_fd.h"

namespace local_core {

// The folders below which content may lie: NUVIO_MUSIC_FOLDERS, absolute paths with colons between,
// as it is at the first call; else those where music and removable media usually are.
const std::vector<std::string>& music_folders();

// A descriptor that names `path` without opening it. None, with *error set, when there is no such
// thing or it lies, links followed, outside of the music folders.
nuvio::UniqueFd look_at(const std::string& path, std::string* error);

// Opens a regular file for reading. None, with *error set, when that fails or `path` names
// anything else.
nuvio::UniqueFd open_regular_file(const std::string& path, std::string* error);

}  // namespace local_core
