#include "common/process/packets.h"

#include <sys/socket.h>
#include <sys/uio.h>

#include <algorithm>
#include <cstring>

namespace nuvio {

namespace {

constexpr size_t kMostParts = 4;
using RoomForRights = std::array<char, CMSG_SPACE(kMostDescriptors * sizeof(int))>;

}  // namespace

bool send_packet(int socket, std::initializer_list<std::string_view> parts,
                 std::initializer_list<int> descriptors) {
    std::array<iovec, kMostParts> pieces{};
    size_t count = 0;
    size_t size = 0;
    for (const std::string_view part : parts) {
        pieces.at(count++) = {const_cast<char*>(part.data()), part.size()};
        size += part.size();
    }
    std::array<int, kMostDescriptors> rights{};
    const auto rights_end = std::copy_if(descriptors.begin(), descriptors.end(), rights.begin(),
                                         [](int descriptor) { return descriptor >= 0; });
    const size_t rights_bytes = static_cast<size_t>(rights_end - rights.begin()) * sizeof(int);
    alignas(cmsghdr) RoomForRights control{};
    msghdr message{};
    message.msg_iov = pieces.data();
    message.msg_iovlen = count;
    if (rights_bytes > 0) {
        message.msg_control = control.data();
        message.msg_controllen = CMSG_SPACE(rights_bytes);
        cmsghdr* const head = CMSG_FIRSTHDR(&message);
        head->cmsg_level = SOL_SOCKET;
        head->cmsg_type = SCM_RIGHTS;
        head->cmsg_len = CMSG_LEN(rights_bytes);
        std::memcpy(CMSG_DATA(head), rights.data(), rights_bytes);
    }
    return sendmsg(socket, &message, MSG_NOSIGNAL | MSG_DONTWAIT) == static_cast<ssize_t>(size);
}

ssize_t receive_packet(int socket, void* to, size_t size, Descriptors* descriptors, int flags) {
    alignas(cmsghdr) RoomForRights control{};
    iovec part{to, size};
    msghdr message{};
    message.msg_iov = &part;
    message.msg_iovlen = 1;
    if (descriptors != nullptr) {
        message.msg_control = control.data();
        message.msg_controllen = control.size();
    }
    const ssize_t got = recvmsg(socket, &message, flags | MSG_CMSG_CLOEXEC);
    const cmsghdr* const rights = got >= 0 ? CMSG_FIRSTHDR(&message) : nullptr;
    if (rights != nullptr && rights->cmsg_type == SCM_RIGHTS) {
        std::array<int, kMostDescriptors> numbers{};
        const size_t bytes = std::min(rights->cmsg_len - CMSG_LEN(0), sizeof numbers);
        std::memcpy(numbers.data(), CMSG_DATA(rights), bytes);
        for (size_t n = 0; n < bytes / sizeof(int); ++n) {
            descriptors->at(n) = UniqueFd(numbers.at(n));
        }
    }
    return got;
}

}  // namespace nuvio
