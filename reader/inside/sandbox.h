// The walls around a reader: after them it has the descriptors that it was given, some memory, and
// a time for each job, and can ask the kernel for next to nothing.
#pragma once

#include <chrono>
#include <string>

namespace nuvio::reader {

// How long a job may use the processor, and how long it may take; 0: without a limit.
struct JobTimes {
    std::chrono::seconds working, longest;
};
constexpr JobTimes kFileTimes{std::chrono::seconds(5), std::chrono::seconds(60)};
// Going to a place may mean to decode all before it; bytes may be waited for.
constexpr JobTimes kSoundTimes{std::chrono::seconds(30), std::chrono::seconds(0)};
constexpr JobTimes kNoTimes{};

// Once, by a program of one thread that has loaded all that it will need. Limits its memory, takes
// from it new files, processes and dumps, and leaves of the system calls a list of some twenty, in
// which nothing is opened, made, connected to, sent to another process or executed. To open a file
// is refused, any other one ends it. False, with *error set, where the kernel refuses any of that.
// `filtered`: false where the kernel has no filter and whoever runs this machine wants to do
// without.
bool shut_in(bool filtered, std::string* error);

// While one of these lives a job is at work: one that takes longer than its time ends the process.
class Clock {
  public:
    explicit Clock(const JobTimes& times);
    ~Clock();
    Clock(const Clock&) = delete;
    Clock& operator=(const Clock&) = delete;

  private:
    const JobTimes m_times;
};

}  // namespace nuvio::reader
