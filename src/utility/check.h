// Fatal checks: a broken precondition or invariant ends the process and names itself.
//
// For bugs only. What a peer, a device or the SDK does at run time is handled and logged instead.
#pragma once

#include <cstddef>

// Writes function, condition, file and line as one FATAL log line, then aborts. Any thread.
[[noreturn]] void check_failed(const char* function, const char* condition, const char* file,
                               int line);

// Always on, release builds included. Write null checks with NULL: the text is part of the line.
#define NUV_CHECK(condition) NUV_CHECK_TEXT(__func__, condition, #condition)

// For a helper that checks what its caller was given: names the caller.
#define NUV_CHECK_OF(function, condition) NUV_CHECK_TEXT(function, condition, #condition)

// The text is made before NULL is expanded.
#define NUV_CHECK_TEXT(function, condition, text)                  \
    do {                                                           \
        if (!(condition)) [[unlikely]] {                           \
            check_failed(function, text, __FILE_NAME__, __LINE__); \
        }                                                          \
    } while (false)
