// CUE sheets: a text of its own, or inside a FLAC file.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "common/unique_fd.h"
#include "reader/inside/serve.h"
#include "reader/protocol.h"
#include "reader/sheet.h"

namespace nuvio::reader {

// The audio tracks that a sheet names, in its order. Of one with a fault, which is said, none: its
// places would be guesses. UTF-8, else Latin-1; any bytes. Pure.
std::vector<SheetTrack> parse_sheet(std::string_view text, std::string* fault);

// Places of a sheet's tracks, each with the file that it lies in, counted from 0, as parts: a track
// begins where it says, the first one of a file with the file, and ends where the next one begins,
// or with the file. Pure.
struct SheetPlace {
    uint64_t begin_us = 0;
    size_t file = 0;
};
std::vector<Section> parts_of(const std::vector<SheetPlace>& places);

// The job: the records go to `shared`, kSheetMemoryBytes. A FLAC file without a sheet inside has no
// tracks.
void read_sheet(const Request& request, UniqueFd file, char* shared, Parent& parent,
                SheetAnswer* answer);

}  // namespace nuvio::reader
