#include "local/base/logger.h"

#include <cstdarg>
#include <cstdio>

#include "common/utf8.h"

namespace local_core {

void Logger::write(LogLevel level, const char* category, const char* format, ...) const {
    const auto callback = m_callback.load();
    if (callback == nullptr) {
        return;
    }
    char message[1024];
    va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(message, sizeof message, format, arguments);
    va_end(arguments);
    // Names of files and sessions: none may begin a line of its own.
    callback(static_cast<uint32_t>(level), category, nuvio::printable(message).c_str());
}

}  // namespace local_core
