#include "controller/base/log.h"

#include <unistd.h>

#include <cstdlib>
#include <string>

#include "common/utf8.h"

namespace nuvio::controller {

void log_line(LogLevel level, std::string_view text) {
    // Set by systemd where standard error goes to the journal.
    static const bool has_journal = std::getenv("JOURNAL_STREAM") != nullptr;
    std::string line =
        has_journal ? "<" + std::to_string(static_cast<int>(level)) + ">" : std::string();
    line += printable(beginning(text, 1000)) + '\n';
    // One call a line, so that lines of several threads do not mix; nothing helps where it fails.
    if (write(STDERR_FILENO, line.data(), line.size()) < 0) {
        return;
    }
}

}  // namespace nuvio::controller
