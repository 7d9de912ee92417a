// The picture inside an audio file.
#pragma once

#include "common/unique_fd.h"
#include "reader/protocol.h"

namespace nuvio::reader {

// Into `picture`, which has room for kMaxPictureBytes. May throw std::bad_alloc.
void read_picture(const UniqueFd& file, char* picture, PictureAnswer* answer);

}  // namespace nuvio::reader
