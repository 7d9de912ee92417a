// The walls around a reader: after them it has the descriptors that it was given, some memory, and
// a time for each job, and can ask the kernel for next to nothing.
#pragma once

#include <chrono>
#include <string>

namespace nuvio::reader {

// How long a job may use the processor, and how long it may take.
constexpr std::chrono::seconds kWorkingTime{5};
constexpr std::chrono::seconds kLongestJob{60};

// Once, by a program of one thread that has loaded all that it will need. Limits its memory, takes
// from it new files, processes and dumps, and leaves of the system calls a list of some twenty, in
// which nothing is opened, made, connected to, sent to another process or executed: any other one
// ends it. False, with *error set, where the kernel refuses any of that. `filtered`: false where
// the kernel has no filter and whoever runs this machine wants to do without.
bool shut_in(bool filtered, std::string* error);

// While one of these lives a job is at work: one that takes longer than its time ends the process.
class Clock {
  public:
    Clock();
    ~Clock();
    Clock(const Clock&) = delete;
    Clock& operator=(const Clock&) = delete;
};

}  // namespace nuvio::reader
