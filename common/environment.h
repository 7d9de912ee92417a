// Variables of the environment. Any thread, as long as no other one changes the environment.
#pragma once

#include <cstdlib>
#include <string>

namespace nuvio {

// Empty counts as not set.
inline std::string environment_text(const char* name, const char* otherwise = "") {
    const char* const text = std::getenv(name);
    return text != nullptr && *text != '\0' ? text : otherwise;
}

}  // namespace nuvio
