#include "utility/log_delegate.h"

#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cinttypes>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <mutex>
#include <string_view>

#include "common/utf8.h"
#include "utility/check.h"
#include "utility/repeat_filter.h"
#include "utility/service_record.h"

namespace {

constexpr size_t kMessageBufferSize = 2048;  // bytes, terminator included
constexpr char kOwnCategory[] = "SampleApp";

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
using read_clock = repeat_filter::clock::time_point (*)();
constinit read_clock clock_now = repeat_filter::clock::now;  // guarded by lines_mutex
constinit bool silenced = false;                             // guarded by lines_mutex

// Syslog's number of each level, as the journal reads it at the start of a line.
constexpr std::array<const char*, LOG_LEVEL_FATAL + 1> kJournalPriorities = {"<7>", "<7>", "<6>",
                                                                             "<4>", "<3>", "<2>"};

// True when the service manager says that standard output is its journal's, "device:inode".
bool is_journal() {
    const char* stream = std::getenv("JOURNAL_STREAM");
    struct stat output {};
    if (stream == nullptr || fstat(STDOUT_FILENO, &output) != 0) {
        return false;
    }
    std::array<char, 48> ours;
    std::snprintf(ours.data(), ours.size(), "%ju:%ju", static_cast<uintmax_t>(output.st_dev),
                  static_cast<uintmax_t>(output.st_ino));
    return std::strcmp(stream, ours.data()) == 0;
}

const char* priority_of(uint32_t level) {
    static const bool wanted = is_journal();
    return wanted ? kJournalPriorities[known_level(level)] : "";
}

constexpr size_t kLongestEscape = 16;  // of a character of four bytes

// The message with what could begin a line of its own or move a terminal's cursor, and with what is
// no text, written as \xNN. Line ends at its end, and tabs, are its author's. Most have nothing of
// the kind and are handed back as they are; `room` holds another one, cut where it is full.
const char* visible(const char* message, std::array<char, 2 * kMessageBufferSize>& room) {
    std::string_view rest = message;
    const size_t body = rest.find_last_not_of('\n') + 1;
    const size_t line_ends = rest.size() - body;
    if (std::ranges::all_of(rest.substr(0, body),
                            [](char c) { return (c >= ' ' && c < 0x7f) || c == '\t'; })) {
        return message;
    }
    size_t used = 0;
    while (!rest.empty() && used + kLongestEscape < room.size()) {
        const size_t length = nuvio::character_length(rest);
        const std::string_view character = rest.substr(0, std::max<size_t>(length, 1));
        const bool is_hidden = length == 0 || (nuvio::is_control_character(character) &&
                                               character != "\t" && rest.size() > line_ends);
        for (const char c : character) {
            used += static_cast<size_t>(std::snprintf(&room[used], room.size() - used,
                                                      is_hidden ? "\\x%02x" : "%c",
                                                      static_cast<unsigned char>(c)));
        }
        rest.remove_prefix(character.size());
    }
    room[used] = '\0';
    return room.data();
}

void write_line(const char* category, uint32_t level, const char* message) {
    std::array<char, 2 * kMessageBufferSize> room;
    timeval now{};
    gettimeofday(&now, nullptr);
    tm local{};
    localtime_r(&now.tv_sec, &local);
    std::printf("%s%d%02d%02d %02d:%02d:%02d.%03d [%d.%d] %s %s: %s\n", priority_of(level),
                local.tm_year + 1900, local.tm_mon + 1, local.tm_mday, local.tm_hour, local.tm_min,
                local.tm_sec, static_cast<int>(now.tv_usec / 1000), static_cast<int>(getpid()),
                static_cast<int>(gettid()), kLevelNames[known_level(level)], category,
                visible(message, room));
    std::fflush(stdout);
}

void write_count(const repeat_filter::count& held_back) {
    std::array<char, kMessageBufferSize> message;
    std::snprintf(message.data(), message.size(), "%.*s (%" PRIu64 " more times)",
                  static_cast<int>(std::strcspn(held_back.message, "\n")), held_back.message,
                  held_back.lines);
    write_line(held_back.category, held_back.level, message.data());
}

using message_buffer = std::array<char, kMessageBufferSize>;

[[gnu::format(printf, 1, 0)]] message_buffer compose(const char* format, va_list arguments) {
    message_buffer message;
    std::vsnprintf(message.data(), message.size(), format, arguments);
    return message;
}

void keep_error(uint32_t level, const char* message) {
    if (level >= LOG_LEVEL_ERROR) {
        service_record_error(message);
    }
}

}  // namespace

void log_write(const char* category, uint32_t level, const char* message) {
    NUV_CHECK(category != NULL);
    NUV_CHECK(message != NULL);
    const std::lock_guard lock(lines_mutex);
    if (silenced) {
        return;
    }
    const auto now = clock_now();
    repeats.report_due(now, write_count);
    if (level < LOG_LEVEL_WARNING || repeats.admit(now, level, category, message, write_count)) {
        write_line(category, level, message);
    }
}

void log_set_clock(std::chrono::steady_clock::time_point (*now)()) {
    const std::lock_guard lock(lines_mutex);
    clock_now = now;
}

void log_silence() {
    const std::lock_guard lock(lines_mutex);
    silenced = true;
}

void app_log(uint32_t level, const char* format, ...) {
    NUV_CHECK(format != NULL);
    va_list arguments;
    va_start(arguments, format);
    const message_buffer message = compose(format, arguments);
    va_end(arguments);
    keep_error(level, message.data());
    log_write(kOwnCategory, level, message.data());
}

void app_log_news(const char* format, ...) {
    NUV_CHECK(format != NULL);
    va_list arguments;
    va_start(arguments, format);
    log_write(kOwnCategory, LOG_LEVEL_ERROR, compose(format, arguments).data());
    va_end(arguments);
}

void sdk_log_callback(uint32_t level, const char* category, const char* message) {
    // The SDK's threads are no reason to end the process.
    category = category == nullptr ? "" : category;
    message = message == nullptr ? "" : message;
    const bool dropped = std::ranges::any_of(kCategoryFilters, [&](const category_filter& row) {
        return std::strcmp(row.category, category) == 0 && level < row.minimum_level;
    });
    if (!dropped) {
        keep_error(level, message);
        log_write(category, known_level(level), message);
    }
}
