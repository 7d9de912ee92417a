// The commands about a device's queue; as running.h.
#pragma once

#include <span>
#include <string>
#include <vector>

namespace nuvio::controller {

// `texts` as people write them; `where`: "now", "next" or "end".
void ask_to_play(const std::string& device, std::span<const std::string> texts, const char* where);
// The words behind the command's name.
void queue(const std::vector<std::string>& words);
void undo(const std::vector<std::string>& words);

}  // namespace nuvio::controller
