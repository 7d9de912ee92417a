// What TagLib reads from an audio file. The bytes come from anyone: texts are cut to 300 bytes of
// UTF-8, pictures to 8 MiB. Any thread; waits for the disk.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "common/unique_fd.h"

namespace nuvio::controller {

struct Tags {
    std::string title, artist, album, album_artist;  // empty: not said
    uint32_t disc = 0, number = 0, year = 0;         // 0: not said
    int64_t duration_ms = 0;
    uint32_t rate_hz = 0, channels = 0;  // 0: not known
    uint32_t bits = 0;                   // 0: lossy, or not known
};

struct Picture {
    std::string data;
    std::string_view type;  // "image/jpeg" and the like, by the bytes; a constant
};

// Whether a file of this name may be music, by its extension.
bool is_audio_name(std::string_view name);
// The Content-Type that goes with such a name; a constant.
std::string_view audio_type_of(std::string_view name);

// Nothing is known of a file that TagLib can't read: then everything is empty.
Tags read_tags(UniqueFd file);
// The picture embedded in the file, the front cover where it says so.
std::optional<Picture> read_embedded_picture(UniqueFd file);
// JPEG, PNG, GIF or WebP by its first bytes; empty for anything else.
std::string_view picture_type_of(std::string_view data);

}  // namespace nuvio::controller
