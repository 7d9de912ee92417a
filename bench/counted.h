// What is loaded into the daemon and its readers while their instructions are counted: counted.cpp,
// and stepped_clock.cpp of the daemon alone. Between what the two mark is the count.
#pragma once

#include <cstdint>

#define SEEN_FROM_OUTSIDE extern "C" __attribute__((visibility("default")))

// 1: the count begins, 2: it ends.
void mark_cost(int64_t mark);

// Until all others have gone to sleep, where the clock is a stepped one.
void wait_for_step();

// The function of that name that comes behind this library.
void* next_of(const char* name);
