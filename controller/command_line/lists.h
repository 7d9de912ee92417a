// The commands about playlists and stations; as running.h.
#pragma once

#include <string>
#include <vector>

namespace nuvio::controller {

// The words behind the command's name.
void playlists(const std::vector<std::string>& words);
void stations(const std::vector<std::string>& words);

}  // namespace nuvio::controller
