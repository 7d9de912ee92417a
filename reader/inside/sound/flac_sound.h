// FLAC of more than 24 bits, in Ogg too, which libsndfile does not read, by libFLAC itself.
#pragma once

#include <memory>
#include <string>

#include "reader/inside/input.h"
#include "reader/inside/sound/foreign_sound.h"

namespace nuvio::reader {

// As open_foreign_sound(): of each sample the upper 24 bits.
std::unique_ptr<ForeignSound> open_flac_sound(Input& input, std::string* error);

}  // namespace nuvio::reader
