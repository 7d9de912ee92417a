#include "reader/client/packets.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cstring>
#include <utility>

namespace nuvio::reader {

UniqueFd shared_memory(size_t bytes) {
    UniqueFd memory(memfd_create("nuvio-reader", MFD_CLOEXEC | MFD_ALLOW_SEALING));
    const bool is_made =
        memory && ftruncate(memory.get(), static_cast<off_t>(bytes)) == 0 &&
        fcntl(memory.get(), F_ADD_SEALS, F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_SEAL) == 0;
    return is_made ? std::move(memory) : UniqueFd();
}

bool send(int socket, const Request& request, const UniqueFd& file, const UniqueFd& memory) {
    std::array<int, 2> descriptors{};
    size_t count = 0;
    for (const UniqueFd* each : {&file, &memory}) {
        if (*each) {
            descriptors[count++] = each->get();
        }
    }
    alignas(cmsghdr) std::array<char, CMSG_SPACE(sizeof descriptors)> control{};
    iovec part{const_cast<Request*>(&request), sizeof request};
    msghdr message{};
    message.msg_iov = &part;
    message.msg_iovlen = 1;
    if (count > 0) {
        message.msg_control = control.data();
        message.msg_controllen = CMSG_SPACE(count * sizeof(int));
        cmsghdr* const rights = CMSG_FIRSTHDR(&message);
        rights->cmsg_level = SOL_SOCKET;
        rights->cmsg_type = SCM_RIGHTS;
        rights->cmsg_len = CMSG_LEN(count * sizeof(int));
        std::memcpy(CMSG_DATA(rights), descriptors.data(), count * sizeof(int));
    }
    return sendmsg(socket, &message, MSG_NOSIGNAL | MSG_DONTWAIT) ==
           static_cast<ssize_t>(sizeof request);
}

}  // namespace nuvio::reader
