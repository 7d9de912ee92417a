#include "utility/log_delegate.h"

#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cinttypes>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <mutex>

#include "utility/check.h"
#include "utility/repeat_filter.h"

namespace {

constexpr size_t kMessageBufferSize = 2048;  // bytes, terminator included

constexpr std::array<const char*, LOG_LEVEL_FATAL + 1> kLevelNames = {"TRACE",   "DEBUG", "INFO",
                                                                      "WARNING", "ERROR", "FATAL"};

struct category_filter {
    const char* category;
    uint32_t minimum_level;
};

constexpr std::array kCategoryFilters = {
    category_filter{"NetworkManager", LOG_LEVEL_INFO},
    category_filter{"HttpClient", LOG_LEVEL_INFO},
    category_filter{"CloudClient", LOG_LEVEL_INFO},
    category_filter{"CurlWS", LOG_LEVEL_INFO},
    category_filter{"HttpDownloader", LOG_LEVEL_INFO},
    category_filter{"AudioStreamManager", LOG_LEVEL_INFO},
    category_filter{"UrlAudioSource", LOG_LEVEL_INFO},
    category_filter{"AudioDecoder", LOG_LEVEL_INFO},
    category_filter{"ContentFetcher", LOG_LEVEL_INFO},
};

constexpr uint32_t known_level(uint32_t level) {
    return std::min<uint32_t>(level, LOG_LEVEL_FATAL);
}

// One line is whole and out before the next begins.
constinit std::mutex lines_mutex;
constinit repeat_filter repeats;  // guarded by lines_mutex

void write_line(const char* category, uint32_t level, const char* message) {
    timeval now{};
    gettimeofday(&now, nullptr);
    tm local{};
    localtime_r(&now.tv_sec, &local);
    std::printf("%d%02d%02d %02d:%02d:%02d.%03d [%d.%d] %s %s: %s\n", local.tm_year + 1900,
                local.tm_mon + 1, local.tm_mday, local.tm_hour, local.tm_min, local.tm_sec,
                static_cast<int>(now.tv_usec / 1000), static_cast<int>(getpid()),
                static_cast<int>(gettid()), kLevelNames[known_level(level)], category, message);
    std::fflush(stdout);
}

void write_count(const repeat_filter::count& held_back) {
    std::array<char, kMessageBufferSize> message;
    std::snprintf(message.data(), message.size(), "%.*s (%" PRIu64 " more times)",
                  static_cast<int>(std::strcspn(held_back.message, "\n")), held_back.message,
                  held_back.lines);
    write_line(held_back.category, held_back.level, message.data());
}

}  // namespace

void log_write(const char* category, uint32_t level, const char* message) {
    NUV_CHECK(category != NULL);
    NUV_CHECK(message != NULL);
    const std::lock_guard lock(lines_mutex);
    if (level < LOG_LEVEL_WARNING ||
        repeats.admit(repeat_filter::clock::now(), level, category, message, write_count)) {
        write_line(category, level, message);
    }
}

void app_log(uint32_t level, const char* format, ...) {
    NUV_CHECK(format != NULL);
    std::array<char, kMessageBufferSize> message;
    va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(message.data(), message.size(), format, arguments);
    va_end(arguments);
    log_write("SampleApp", level, message.data());
}

void sdk_log_callback(uint32_t level, const char* category, const char* message) {
    // The SDK's threads are no reason to end the process.
    category = category == nullptr ? "" : category;
    message = message == nullptr ? "" : message;
    const bool dropped = std::ranges::any_of(kCategoryFilters, [&](const category_filter& row) {
        return std::strcmp(row.category, category) == 0 && level < row.minimum_level;
    });
    if (!dropped) {
        log_write(category, known_level(level), message);
    }
}
