// The rules of a core: each looks at a core of its own, and throws Broken, or NotSeen where it did
// not come to it; what it returns was seen. What they share stands here; core_rules.cpp has their
// order.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

#include "conformance/core_device.h"

namespace nuvio::kit {

inline constexpr auto kQuiet = std::chrono::milliseconds(200);  // in which nothing may come
inline constexpr uint64_t kMillisecondsIn = 1000;

struct Run {
    Breaches& breaches;
    std::string endpoint;
    std::chrono::seconds patience;
};

std::string ms(uint64_t value);
// Joins a session as "conformance"; with an error where that failed.
void join(Device& device, const Run& run, bool become_active = true);
// A session whose first track plays, of which no more than some frames are taken.
void play(Device& device, const Run& run, uint64_t frames = 4410);
void expect_answer(const std::string& what, nuv_error answer);
// The order in which events are to come since the mark.
void expect_order(const Device& device, size_t since, const std::vector<std::string>& names);

std::string check_texts(const Run& run);
std::string check_services(const Run& run);
std::string check_without_session(const Run& run);
std::string check_session(const Run& run);
std::string check_delivery(const Run& run);
std::string check_tracks(const Run& run);
std::string check_next_early(const Run& run);
std::string check_pause(const Run& run);
std::string check_presses(const Run& run);
std::string check_seek(const Run& run);
std::string check_skip(const Run& run);
std::string check_volume(const Run& run);
std::string check_modes(const Run& run);
std::string check_name(const Run& run);
std::string check_stop(const Run& run);
std::string check_error(const Run& run);
std::string check_leave(const Run& run);
std::string check_threads(const Run& run);
std::string check_free(const Run& run);

}  // namespace nuvio::kit
