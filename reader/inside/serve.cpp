#include "reader/inside/serve.h"

#include <sys/mman.h>
#include <sys/socket.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <new>
#include <string>
#include <string_view>
#include <utility>

#include "common/music/pictures.h"
#include "reader/inside/sandbox.h"

namespace nuvio::reader {

namespace {

struct Received {
    Request request{};
    UniqueFd file, memory;
};

enum class Receipt { request, end, other_build };

Receipt receive(Received* received) {
    std::array<int, 2> descriptors{-1, -1};
    alignas(cmsghdr) std::array<char, CMSG_SPACE(sizeof descriptors)> control{};
    iovec part{&received->request, sizeof received->request};
    msghdr message{};
    message.msg_iov = &part;
    message.msg_iovlen = 1;
    message.msg_control = control.data();
    message.msg_controllen = control.size();
    const ssize_t got = recvmsg(kSocket, &message, MSG_CMSG_CLOEXEC);
    if (got != static_cast<ssize_t>(sizeof received->request)) {
        return got <= 0 ? Receipt::end : Receipt::other_build;
    }
    const cmsghdr* const rights = CMSG_FIRSTHDR(&message);
    if (rights != nullptr && rights->cmsg_type == SCM_RIGHTS) {
        std::memcpy(descriptors.data(), CMSG_DATA(rights),
                    std::min(rights->cmsg_len - CMSG_LEN(0), sizeof descriptors));
    }
    received->file = UniqueFd(descriptors[0]);
    received->memory = UniqueFd(descriptors[1]);
    return Receipt::request;
}

// The shared memory of a picture, mapped.
class Shared {
  public:
    explicit Shared(const UniqueFd& memory)
        : m_bytes(mmap(nullptr, kMaxPictureBytes, PROT_READ | PROT_WRITE, MAP_SHARED, memory.get(),
                       0)) {
        if (m_bytes == MAP_FAILED) {
            throw std::bad_alloc();
        }
    }
    ~Shared() { munmap(m_bytes, kMaxPictureBytes); }
    Shared(const Shared&) = delete;
    Shared& operator=(const Shared&) = delete;
    char* bytes() const { return static_cast<char*>(m_bytes); }

  private:
    void* const m_bytes;
};

void work(const Received& received, const Jobs& jobs, Answer* answer) {
    const Clock clock;
    try {
        const Request& request = received.request;
        if (request.job == Job::tags) {
            answer->tags = {};
            jobs.tags(received.file, &answer->tags);
            return;
        }
        answer->picture = {};
        const Shared shared(received.memory);
        if (request.job == Job::picture) {
            jobs.picture(received.file, shared.bytes(), &answer->picture);
        } else {
            jobs.scaled_picture(received.file, request.edge, shared.bytes(), &answer->picture);
        }
    } catch (const std::bad_alloc&) {
        answer->status = Status::too_big;
    }
}

bool send(const Answer& answer) {
    iovec part{const_cast<Answer*>(&answer), sizeof answer};
    msghdr message{};
    message.msg_iov = &part;
    message.msg_iovlen = 1;
    return sendmsg(kSocket, &message, MSG_NOSIGNAL) == static_cast<ssize_t>(sizeof answer);
}

}  // namespace

int serve(int argc, char** argv, const Jobs& jobs) {
    const bool filtered = argc < 2 || std::string_view(argv[1]) != "--unfiltered";
    int type = 0;
    socklen_t size = sizeof type;
    if (getsockopt(kSocket, SOL_SOCKET, SO_TYPE, &type, &size) != 0 || type != SOCK_SEQPACKET) {
        std::fprintf(stderr, "%s is started by the programs that have something read\n",
                     program_invocation_short_name);
        return 2;
    }
    std::string error;
    if (!shut_in(filtered, &error)) {
        std::fprintf(stderr, "%s: not started: %s\n", program_invocation_short_name, error.c_str());
        return 1;
    }
    Received received;
    Receipt receipt = Receipt::end;
    while ((receipt = receive(&received)) == Receipt::request) {
        Answer answer{};
        answer.number = received.request.number;
        work(received, jobs, &answer);
        received = {};
        if (!send(answer)) {
            break;
        }
    }
    return receipt == Receipt::other_build ? 1 : 0;
}

}  // namespace nuvio::reader
