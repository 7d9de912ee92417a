// Packets over a socket between two processes, and descriptors that go with them. Any thread.
#pragma once

#include <sys/types.h>

#include <array>
#include <cstddef>
#include <initializer_list>
#include <string_view>
#include <type_traits>

#include "common/unique_fd.h"

namespace nuvio {

inline constexpr size_t kMostDescriptors = 2;
using Descriptors = std::array<UniqueFd, kMostDescriptors>;

// A record as it lies in memory.
template <typename Record>
std::string_view bytes_of(const Record& record) {
    static_assert(std::is_trivially_copyable_v<Record>);
    return {reinterpret_cast<const char*>(&record), sizeof record};
}

// The parts as one packet, and copies of those of the descriptors that are not negative. False,
// with errno set, where the other side is gone, or has not taken the packets before this one: it is
// not waited for.
bool send_packet(int socket, std::initializer_list<std::string_view> parts,
                 std::initializer_list<int> descriptors = {});

// The next packet, as far as there is room; waits for it unless `flags` has MSG_DONTWAIT. Its
// bytes; with MSG_TRUNC in `flags` also those without room. 0: the other side is gone. Negative,
// with errno set: none. The descriptors that came with it stand in *descriptors in their order, if
// not null.
ssize_t receive_packet(int socket, void* to, size_t size, Descriptors* descriptors, int flags = 0);

}  // namespace nuvio
