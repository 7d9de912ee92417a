// Pictures of music: those beside it, and what kind they are; the one inside a file is read by
// reader/client/music_reader.h. Whoever shows a file's picture finds it by these two, so that every
// display shows the same one. Any thread.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

#include "common/unique_fd.h"

namespace nuvio {

constexpr size_t kMaxPictureBytes = size_t{8} << 20U;

struct PictureKind {
    std::string_view type;    // "image/jpeg" and the like
    std::string_view ending;  // of a file's name
};

constexpr size_t kPictureStart = 16;  // bytes that show of what kind it is

// JPEG, PNG, GIF or WebP, by the first bytes; null for anything else: nothing that could run is
// handed on.
const PictureKind* picture_kind_of(std::string_view bytes);

// The names in a folder that say they are its picture (cover, folder, front; jpg, jpeg, png, webp,
// gif; in whatever case), the one to be shown first; each may be no picture. Waits for the disk.
std::vector<std::string> pictures_in(UniqueFd folder);

}  // namespace nuvio
