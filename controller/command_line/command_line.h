// The commands for scripts and for ssh. All but two talk to a running controller, over its API;
// `find` and `connect` go to the devices themselves.
#pragma once

#include <string>
#include <vector>

namespace nuvio::controller {

// Runs the command that the words begin with. The exit status: 0, 1 for what failed (a line on
// standard error says why), 2 for what is not understood.
int run_command(const std::vector<std::string>& words);

// What there is to say on the command line, for --help.
std::string command_help();

}  // namespace nuvio::controller
