// Files as a whole: read within a limit, made, replaced so that a power cut leaves one of two.
// Any thread; each call waits for the disk.
#pragma once

#include <sys/stat.h>

#include <cstddef>
#include <string>
#include <string_view>

#include "common/unique_fd.h"

namespace nuvio {

struct FileText {
    std::string text;
    bool cut = false;  // the file holds more than was asked for
    int error = 0;     // errno value; 0 when it was read

    // The text without a last line that was cut: half of it could read as something else.
    std::string_view whole_lines() const;
};

// What follows in a regular file, at most `limit` bytes. Anything else (a pipe, a folder) is
// EINVAL, so that a reader never waits; no descriptor is EBADF. Files below /sys and /proc count as
// regular.
FileText read_file(const UniqueFd& file, size_t limit);
FileText read_file(const std::string& path, size_t limit);

// Makes a file that isn't there yet; one that can't be written whole is removed again. Returns 0 or
// an errno value.
int make_file(const std::string& path, std::string_view text);

// Replaces the file so that at any moment, also after a power cut, either the old or the new text
// is there; owner and mode stay, and a new file gets `mode`, less the process's mask. Missing
// folders are made. The text goes to a draft beside it, the path with ".new" behind it: one writer
// a path. Returns 0 or an errno value.
int replace_file(const std::string& path, std::string_view text, mode_t mode = 0644);

}  // namespace nuvio
