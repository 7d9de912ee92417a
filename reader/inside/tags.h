// What an audio file says about itself.
#pragma once

#include "common/unique_fd.h"
#include "reader/protocol.h"

namespace nuvio::reader {

// `answer` is all zeros, and stays so for a file that TagLib can't read. May throw std::bad_alloc.
void read_tags(const UniqueFd& file, TagsAnswer* answer);

}  // namespace nuvio::reader
