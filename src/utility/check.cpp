#include "utility/check.h"

#include <cstdlib>

#include "utility/log_delegate.h"

void check_failed(const char* function, const char* condition, const char* file, int line) {
    app_log(LOG_LEVEL_FATAL, "%s: check failed: %s (%s:%d)", function, condition, file, line);
    std::abort();
}
