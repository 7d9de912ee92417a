// Texts that come from files and controllers, made fit for display.
#pragma once

#include <string>
#include <string_view>

namespace local_core {

// Valid UTF-8 on one line: what is no UTF-8 is read as Latin-1, control characters become blanks,
// blanks at both ends go. Pure; any thread, any bytes.
std::string display_text(std::string_view raw);

}  // namespace local_core
