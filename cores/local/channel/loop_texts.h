// How the loop modes are called on a session's channel.
#pragma once

namespace local_core {

inline constexpr const char* kLoopTexts[] = {"off", "one", "all"};  // by nuv_loop_mode

}  // namespace local_core
