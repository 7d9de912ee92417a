// The chances of a random test: told first, so that NUVIO_SEED repeats the run.
#pragma once

#include <cinttypes>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <random>

inline uint64_t draw_seed() {
    const char* given = std::getenv("NUVIO_SEED");
    const uint64_t seed =
        given != nullptr ? std::strtoull(given, nullptr, 10) : std::random_device()();
    std::printf("NUVIO_SEED=%" PRIu64 "\n", seed);
    std::fflush(stdout);  // before it can hang
    return seed;
}

// The long form's number with NUVIO_LONG=1.
inline size_t how_many(size_t by_default, size_t in_the_long_form) {
    return std::getenv("NUVIO_LONG") != nullptr ? in_the_long_form : by_default;
}
