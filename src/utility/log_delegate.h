// Log lines of the device modules and of the SDK, one formatted line each on standard output:
//
//   20240131 14:05:09.123 [812.840] INFO SampleApp: Renderer is now active
//
// (local date and time with milliseconds, process and kernel thread id, level, category, message).
// Every function may be called from any thread; lines of two threads never mix, and each reaches
// the reader of a pipe at once, in the journal with its level as priority. Control characters
// inside a message (C0, DEL, C1), and bytes that are no UTF-8, are shown as \\xNN: texts of peers
// get into it. Nothing is allocated. Every line is written, but for floods of one and the same
// WARNING or worse: what a call that fails thousands of times a second has to say is counted
// instead (repeat_filter.h).
#pragma once

#include <chrono>
#include <cstdint>

// The SDK numbers its levels the same way.
enum log_level : uint32_t {
    LOG_LEVEL_TRACE = 0,
    LOG_LEVEL_DEBUG = 1,
    LOG_LEVEL_INFO = 2,
    LOG_LEVEL_WARNING = 3,
    LOG_LEVEL_ERROR = 4,
    LOG_LEVEL_FATAL = 5  // and every value above
};

// Writes one line of a device module. printf-style; a message longer than 2047 bytes is cut.
// One at ERROR or above is kept as the last error (service_record.h), as is the SDK's.
[[gnu::format(printf, 2, 3)]] void app_log(uint32_t level, const char* format, ...);

// The same at ERROR for what is none: so the platform wants some of its news. Not kept as one.
[[gnu::format(printf, 1, 2)]] void app_log_news(const char* format, ...);

// The callback for nuv_log_delegate: writes one line of the SDK, without the low-level chatter of
// its network and decoding categories (levels below INFO there).
void sdk_log_callback(uint32_t level, const char* category, const char* message);

// Writes one line as it is, whatever its category and level. The arguments must not be null.
void log_write(const char* category, uint32_t level, const char* message);

// For tests: the time by which floods are measured.
void log_set_clock(std::chrono::steady_clock::time_point (*now)());

// Nothing is written from now on: for a program run that speaks to its user itself. Any thread.
void log_silence();
