// Texts that come from files and controllers, made fit for display.
#pragma once

#include <string>
#include <string_view>

namespace local_core {

// Valid UTF-8 on one line: what is no UTF-8 is read as Latin-1, control characters become blanks,
// blanks at both ends go. Pure; any thread, any bytes.
std::string display_text(std::string_view raw);

// The same of a path or an address, for a log: of an address without user, password and query,
// which a server may have its secrets in.
std::string display_location(std::string_view location);

// Of an address its scheme, host and port.
std::string display_server(std::string_view address);

}  // namespace local_core
