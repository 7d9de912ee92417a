// Pictures of music: beside it, in its files, and what kind they are. Whoever shows a file's
// picture finds it here, so that every display shows the same one. Any thread.
#pragma once

#include <cstddef>
#include <optional>
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

// JPEG, PNG, GIF or WebP, by the first 12 bytes; null for anything else: nothing that could run is
// handed on.
const PictureKind* picture_kind_of(std::string_view bytes);

// The names in a folder that say they are its picture (cover, folder, front; jpg, jpeg, png, webp,
// gif; in whatever case), the one to be shown first; each may be no picture. Waits for the disk.
std::vector<std::string> pictures_in(UniqueFd folder);

// The picture inside an audio file (FLAC, MP3, AAC, Ogg, M4A, WAV, AIFF): its first front cover,
// else its first one. One of no known kind, or beyond kMaxPictureBytes, is as none. Waits for the
// disk.
std::optional<std::string> embedded_picture(UniqueFd file);

}  // namespace nuvio
