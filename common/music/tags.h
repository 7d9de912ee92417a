// What an audio file says about itself. The bytes come from anyone: texts are cut to 300 bytes of
// UTF-8. Any thread; waits for the disk.
#pragma once

#include <cstdint>
#include <string>

#include "common/unique_fd.h"

namespace nuvio {

struct Tags {
    std::string title, artist, album, album_artist;  // empty: not said
    uint32_t disc = 0, number = 0, year = 0;         // 0: not said
    int64_t duration_ms = 0;
    uint32_t rate_hz = 0, channels = 0;  // 0: not known
    uint32_t bits = 0;                   // 0: lossy, or not known
};

// Nothing is known of a file that TagLib can't read: then everything is empty.
Tags read_tags(UniqueFd file);

}  // namespace nuvio
