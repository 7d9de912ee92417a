// Tokens and ids that nobody can guess. Any thread.
#pragma once

#include <string>
#include <string_view>

namespace nuvio::controller {

// 32 hexadecimal digits from the kernel's random numbers.
std::string new_token();

// In a time that does not depend on where the texts differ.
bool equals_secret(std::string_view a, std::string_view b);

}  // namespace nuvio::controller
