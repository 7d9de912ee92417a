// What is in one folder of music, as the disk has it.
#pragma once

#include <cstdint>
#include <ctime>
#include <map>
#include <set>
#include <string>

#include "common/unique_fd.h"
#include "controller/library/catalogue.h"

namespace nuvio::controller {

struct Listing {
    int64_t device = 0;                                  // the file system that the folder is on
    std::map<std::string, Catalogue::KnownFile> files;   // of music
    std::map<std::string, Catalogue::KnownFile> sheets;  // CUE sheets
    std::set<std::string> folders;
    std::set<std::string> playlists;  // M3U
};

// Hidden names and links left out. False: the folder can't be read, or not to its end. Any thread;
// waits for the disk.
bool read_listing(UniqueFd folder, Listing* listing);

int64_t nanoseconds(const timespec& time);

}  // namespace nuvio::controller
