// What the service relies on a core for: a rule a function, each with a core of its own, in a file
// a topic; and the steps that they have in common.
#pragma once

#include <chrono>
#include <string>
#include <vector>

#include "conformance/core_device.h"

namespace nuvio::kit {

using std::chrono::milliseconds;

constexpr auto kQuiet = milliseconds(200);  // in which nothing may come
constexpr uint64_t kMillisecondsIn = 1000;

struct Run {
    Breaches& breaches;
    std::string endpoint;
    std::chrono::seconds patience;
};

// Returns what was seen; throws Broken or NotSeen.
struct Rule {
    const char* name;
    std::string (*check)(const Run& run);
};

// In the order in which they are looked at.
std::vector<Rule> session_rules();
std::vector<Rule> control_rules();
std::vector<Rule> end_rules();

// ---- Steps

inline std::string ms(uint64_t value) {
    return std::to_string(value) + " ms";
}

// Joins a session as "conformance"; with an error where that failed.
void join(Device& device, const Run& run, bool become_active = true);
// A session whose first track plays, of which no more than some frames are taken.
void play(Device& device, const Run& run, uint64_t frames = 4410);
void expect_answer(const std::string& what, nuv_error answer);
// The order in which events are to come since the mark.
void expect_order(const Device& device, size_t since, const std::vector<std::string>& names);

}  // namespace nuvio::kit
