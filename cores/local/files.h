// Opening files that a controller names: never blocks on a FIFO or a device, never leaks into a
// child process.
#pragma once

#include <cstddef>
#include <optional>
#include <string>

#include "common/unique_fd.h"

namespace local_core {

// Opens a regular file for reading. None, with *error set, when that fails or `path` names
// anything else.
nuvio::UniqueFd open_regular_file(const std::string& path, std::string* error);

// The file's first `max_bytes` bytes; none, with *error set, when it can't be read.
std::optional<std::string> read_file(const std::string& path, size_t max_bytes, std::string* error);

}  // namespace local_core
