// What must hold for any input: otherwise the process ends and libFuzzer keeps the input.
#pragma once

#undef NDEBUG
#include <cassert>

#define FUZZ_EXPECT(condition) assert(condition)
