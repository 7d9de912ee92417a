#include "controller/base/token.h"

#include <sys/random.h>

#include <array>
#include <cstdint>
#include <cstdlib>

namespace nuvio::controller {

std::string new_token() {
    std::array<uint8_t, 16> bytes{};
    // Up to 256 bytes come whole once the kernel has them at all; it waits for that.
    if (getrandom(bytes.data(), bytes.size(), 0) != static_cast<ssize_t>(bytes.size())) {
        std::abort();
    }
    std::string token;
    for (const uint8_t byte : bytes) {
        constexpr char kHex[] = "0123456789abcdef";
        token += {kHex[byte >> 4U], kHex[byte & 0x0fU]};
    }
    return token;
}

bool equals_secret(std::string_view a, std::string_view b) {
    auto difference = static_cast<unsigned>(a.size() != b.size());
    for (size_t i = 0; i < a.size() && i < b.size(); ++i) {
        difference |= static_cast<unsigned>(a[i] ^ b[i]);
    }
    return difference == 0;
}

}  // namespace nuvio::controller
