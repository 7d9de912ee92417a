// A process that is to end before the one that started it where memory is short.
#pragma once

#include <fcntl.h>
#include <unistd.h>

#include <string_view>

#include "common/unique_fd.h"

namespace nuvio {

// The kernel takes this process first. Before PR_SET_DUMPABLE; without /proc it goes on without.
inline void give_way_where_memory_is_short() {
    constexpr std::string_view kMost = "1000";
    const UniqueFd score(open("/proc/self/oom_score_adj", O_WRONLY | O_CLOEXEC));
    static_cast<void>(write(score.get(), kMost.data(), kMost.size()) > 0);
}

}  // namespace nuvio
