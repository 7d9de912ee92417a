// A picture made smaller.
#pragma once

#include <cstdint>

#include "common/unique_fd.h"
#include "reader/protocol.h"

namespace nuvio::reader {

// A JPEG of which no side is longer than `edge` pixels, into `scaled`, which has room for
// kMaxPictureBytes; nothing where the file is no JPEG, PNG or WebP. What shines through is white.
// May throw std::bad_alloc.
void scale_picture(const UniqueFd& file, uint32_t edge, char* scaled, PictureAnswer* answer);

}  // namespace nuvio::reader
