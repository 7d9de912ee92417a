// What reading and writing the messages have in common.
#pragma once

#include <cjson/cJSON.h>

#include <memory>

#include "common/released_by.h"

namespace local_core {

using Json = std::unique_ptr<cJSON, nuvio::ReleasedBy<cJSON_Delete>>;

inline constexpr double kMaxInteger = 9007199254740991;  // what a JSON number holds exactly
inline constexpr const char* kLoopTexts[] = {"off", "one", "all"};  // by nuv_loop_mode

}  // namespace local_core
