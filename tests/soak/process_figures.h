// What a long run must not use up: memory, descriptors and threads of this process, and the line
// that reports them.
#pragma once

#include <chrono>
#include <cinttypes>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
inline constexpr bool has_sanitizer = true;
#else
inline constexpr bool has_sanitizer = false;
#endif

// 0 when the kernel does not tell.
inline uint64_t anonymous_memory_kib() {
    std::ifstream status("/proc/self/status");
    const std::string key = "RssAnon:";
    for (std::string line; std::getline(status, line);) {
        if (line.starts_with(key)) {
            return std::stoull(line.substr(key.size()));
        }
    }
    return 0;
}

struct ProcessFigures {
    uint64_t memory_kib = anonymous_memory_kib();
    size_t descriptors = entries("/proc/self/fd");
    size_t threads = entries("/proc/self/task");

    static size_t entries(const char* directory) {
        const std::filesystem::directory_iterator all(directory);
        return static_cast<size_t>(std::distance(begin(all), end(all)));
    }
};

// Prints what a run used from `before` to `after`.
inline void report(double hours, std::chrono::steady_clock::time_point since,
                   const ProcessFigures& before, const ProcessFigures& after) {
    const std::chrono::duration<double> wall = std::chrono::steady_clock::now() - since;
    std::printf("soak: %.2f h of audio in %.1f s; memory %" PRIu64 " -> %" PRIu64
                " KiB, descriptors %zu -> %zu, threads %zu -> %zu\n",
                hours, wall.count(), before.memory_kib, after.memory_kib, before.descriptors,
                after.descriptors, before.threads, after.threads);
}
