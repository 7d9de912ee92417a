#include "bridge/captured_log.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <condition_variable>
#include <cstdarg>
#include <cstdio>
#include <mutex>

namespace captured_log {
namespace {

constexpr std::chrono::seconds kPatience{60};
constexpr int kErrorPriority = 3;

std::mutex g_mutex;
std::condition_variable g_changed;
std::vector<std::string> g_lines;

std::vector<std::string> select(const std::string& text) {
    std::vector<std::string> found;
    std::ranges::copy_if(g_lines, std::back_inserter(found), [&text](const std::string& line) {
        return line.find(text) != std::string::npos;
    });
    return found;
}

[[gnu::format(printf, 2, 0)]] void capture(int priority, const char* format, va_list arguments) {
    std::array<char, 1024> text{};
    std::vsnprintf(text.data(), text.size(), format, arguments);
    const std::scoped_lock lock(g_mutex);
    g_lines.push_back((priority == kErrorPriority ? "err " : "info ") + std::string(text.data()));
    g_changed.notify_all();
}

}  // namespace

void reset() {
    const std::scoped_lock lock(g_mutex);
    g_lines.clear();
}

std::vector<std::string> lines() {
    return lines_with("");
}

std::vector<std::string> lines_with(const std::string& text) {
    const std::scoped_lock lock(g_mutex);
    return select(text);
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

// Both the plain function and the one that fortified code calls.
extern "C" {

[[gnu::format(printf, 2, 3)]] void syslog(int priority, const char* format, ...);
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
