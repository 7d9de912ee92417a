// The platform's configuration items with what counts where one is not set. Any thread.
#pragma once

#include <string>

#include "platform/Environment.h"

namespace android {

inline constexpr char kDefaultOutputDevice[] = "default";
inline constexpr char kDefaultHttpPort[] = "8000";
inline constexpr char kDefaultVolumeElement[] = "Master";
inline constexpr char kDefaultVolumeDevice[] = "default";

// The item's value, or `fallback` where it is empty or not set.
inline std::string env_item(const char* key, const char* fallback = "") {
    std::string value;
    GetEnvItemByName(key, value);
    return value.empty() ? fallback : value;
}

}  // namespace android
