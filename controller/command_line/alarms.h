// The command about alarms; as running.h.
#pragma once

#include <string>
#include <vector>

namespace nuvio::controller {

// The words behind the command's name.
void alarm(const std::vector<std::string>& words);

}  // namespace nuvio::controller
