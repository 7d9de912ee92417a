// The CUE sheet inside a FLAC file: a comment CUESHEET, which has all that a sheet of its own has,
// else the block of that name, which has places alone.
//
// One thread. May throw std::bad_alloc.
#pragma once

#include <string>
#include <vector>

#include "reader/inside/input.h"
#include "reader/sheet.h"

namespace nuvio::reader {

// Its tracks, without the name of a file; none where there is no sheet, or one with a fault, which
// is said; the same of a file that is no FLAC.
std::vector<SheetTrack> flac_sheet(Input& input, std::string* fault);

}  // namespace nuvio::reader
