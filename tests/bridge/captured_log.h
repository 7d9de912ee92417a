// The system log of a test program, in place of syslog(3).
#pragma once

#include <string>
#include <vector>

namespace captured_log {

void reset();
// In order, each after its priority: "err NuvioConnect: ...", "info NuvioKora: ...".
std::vector<std::string> lines_with(const std::string& text);
// True as soon as `times` lines contain the text; false when that takes absurdly long.
bool wait_for(const std::string& text, size_t times = 1);

}  // namespace captured_log
