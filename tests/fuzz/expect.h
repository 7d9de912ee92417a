// What must hold for any input: otherwise the process ends and libFuzzer keeps the input.
#pragma once

#include <cstdio>
#include <cstdlib>

#define FUZZ_EXPECT(condition)                                                           \
    do {                                                                                 \
        if (!(condition)) {                                                              \
            std::fprintf(stderr, "%s:%d: not so: %s\n", __FILE__, __LINE__, #condition); \
            std::abort();                                                                \
        }                                                                                \
    } while (false)
