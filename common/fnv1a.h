// The 64-bit FNV-1a hash: short and quick, for keys and names; no protection against collisions
// that somebody wants. Pure, any thread.
#pragma once

#include <cstdint>
#include <string_view>

namespace nuvio {

inline constexpr uint64_t kFnv1aStart = 0xcbf29ce484222325;

constexpr uint64_t fnv1a(uint64_t state, uint8_t byte) {
    constexpr uint64_t kPrime = 0x100000001b3;
    return (state ^ byte) * kPrime;
}

// `state` is kFnv1aStart or the hash of what came before.
constexpr uint64_t fnv1a(uint64_t state, std::string_view bytes) {
    for (const char byte : bytes) {
        state = fnv1a(state, static_cast<uint8_t>(byte));
    }
    return state;
}

}  // namespace nuvio
