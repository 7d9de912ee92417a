// What an ID3 tag within a stream says that is played.
#pragma once

#include <optional>
#include <string_view>

#include "reader/inside/sound/foreign_sound.h"

namespace nuvio::reader {

// Of a packet of MPEG-TS; none where it has no title. Any bytes; pure.
std::optional<ForeignSound::Texts> texts_in_id3(std::string_view packet);

}  // namespace nuvio::reader
