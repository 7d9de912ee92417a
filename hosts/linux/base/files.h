// Reading and replacing the small text files of the Linux host. Any thread.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace nuvio::host {

struct FileText {
    std::string text;
    bool cut = false;  // the file holds more than was asked for
    int error = 0;     // errno value; 0 when it was read
};

// Reads at most `limit` bytes of a regular file; anything else (a pipe, a folder) is EINVAL, so
// that a reader never waits. Files below /sys and /proc count as regular.
FileText read_file(const std::string& path, size_t limit);

// Replaces the file so that at any moment, also after a power cut, either the old or the new text
// is there; owner and mode stay. Missing folders are made. Returns 0 or an errno value. Waits for
// the disk.
int replace_file(const std::string& path, std::string_view text);

}  // namespace nuvio::host
