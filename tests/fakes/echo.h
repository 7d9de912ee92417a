// What a test makes of the surroundings of the service, in among the service's own lines.
#pragma once

#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <string>

namespace fakes {

// From now on what the fakes are asked for goes to standard output, a line "[0.THREAD] WHO WHAT"
// each; line ends inside it are shown as "\n".
inline std::atomic<bool> g_echoes{false};

inline void echo(const char* who, const std::string& what) {
    if (g_echoes) {
        std::string line = what;
        for (size_t at = 0; (at = line.find('\n', at)) != std::string::npos;) {
            line.replace(at, 1, "\\n");
        }
        std::printf("[0.%d] %s %s\n", static_cast<int>(gettid()), who, line.c_str());
        std::fflush(stdout);
    }
}

}  // namespace fakes
