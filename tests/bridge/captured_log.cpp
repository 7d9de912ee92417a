#include "bridge/captured_log.h"

#include <array>
#include <chrono>
#include <condition_variable>
#include <cstdarg>
#include <cstdio>
#include <mutex>

#include "fakes/echo.h"

namespace captured_log {
namespace {

constexpr std::chrono::seconds kPatience{60};
// As <syslog.h> has them, whose own syslog would be in the way.
constexpr int kError = 3;
constexpr int kInfo = 6;

std::mutex g_mutex;
std::condition_variable g_changed;
std::vector<std::string> g_lines;

[[gnu::format(printf, 2, 0)]] void capture(int priority, const char* format, va_list arguments) {
    std::array<char, 1024> text{};
    std::vsnprintf(text.data(), text.size(), format, arguments);
    const std::scoped_lock lock(g_mutex);
    const char* const level = priority == kError ? "err" : priority == kInfo ? "info" : "?";
    g_lines.push_back(level + (' ' + std::string(text.data())));
    fakes::echo(level, text.data());
    g_changed.notify_all();
}

}  // namespace

void reset() {
    const std::scoped_lock lock(g_mutex);
    g_lines.clear();
}

std::vector<std::string> lines_with(const std::string& text) {
    const std::scoped_lock lock(g_mutex);
    std::vector<std::string> found = g_lines;
    std::erase_if(found,
                  [&](const std::string& line) { return line.find(text) == std::string::npos; });
    return found;
}

bool wait_for(const std::string& text, size_t times) {
    std::unique_lock lock(g_mutex);
    size_t seen = 0;
    size_t found = 0;
    return g_changed.wait_for(lock, kPatience, [&] {
        for (; seen < g_lines.size(); ++seen) {
            found += g_lines[seen].find(text) != std::string::npos ? 1 : 0;
        }
        return found >= times;
    });
}

}  // namespace captured_log

extern "C" {

[[gnu::format(printf, 2, 3)]] void syslog(int priority, const char* format, ...);
// What fortified code calls instead.
[[gnu::format(printf, 3, 4)]] void __syslog_chk(int priority, int flag, const char* format, ...);

void syslog(int priority, const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    captured_log::capture(priority, format, arguments);
    va_end(arguments);
}

void __syslog_chk(int priority, int, const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    captured_log::capture(priority, format, arguments);
    va_end(arguments);
}
}
