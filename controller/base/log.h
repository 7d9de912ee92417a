// Log lines on standard error, for a terminal or the journal. Any thread. A text is made printable
// (common/utf8.h); a line has at most 1000 bytes of it.
#pragma once

#include <string_view>

namespace nuvio::controller {

// The numbers are the journal's priorities.
enum class LogLevel { error = 3, warning = 4, info = 6 };

void log_line(LogLevel level, std::string_view text);

}  // namespace nuvio::controller
