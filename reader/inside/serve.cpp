#include "reader/inside/serve.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <new>
#include <string>
#include <string_view>
#include <utility>

#include "common/code_pages.h"
#include "common/music/pictures.h"
#include "common/process/packets.h"
#include "reader/inside/sandbox.h"

namespace nuvio::reader {

namespace {

struct Received {
    Request request{};
    UniqueFd file, memory;
};

enum class Receipt { request, end, other_build };

Receipt receive(Received* received) {
    Descriptors descriptors;
    const ssize_t got =
        receive_packet(kSocket, &received->request, sizeof received->request, &descriptors);
    if (got != static_cast<ssize_t>(sizeof received->request)) {
        return got <= 0 ? Receipt::end : Receipt::other_build;
    }
    received->file = std::move(descriptors[0]);
    received->memory = std::move(descriptors[1]);
    return Receipt::request;
}

// Shared memory, mapped.
class Shared {
  public:
    Shared(const UniqueFd& memory, size_t size)
        : m_size(size),
          m_bytes(mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, memory.get(), 0)) {
        if (m_bytes == MAP_FAILED) {
            throw std::bad_alloc();
        }
    }
    ~Shared() { munmap(m_bytes, m_size); }
    Shared(const Shared&) = delete;
    Shared& operator=(const Shared&) = delete;
    char* bytes() const { return static_cast<char*>(m_bytes); }

  private:
    const size_t m_size;
    void* const m_bytes;
};

void make_picture(const Received& received, const Jobs& jobs, PictureAnswer* answer) {
    const Shared shared(received.memory, kMaxPictureBytes);
    if (received.request.job == Job::picture) {
        jobs.picture(received.file, shared.bytes(), answer);
    } else {
        jobs.scaled_picture(received.file, received.request.edge, shared.bytes(), answer);
    }
}

void read_sheet(Received& received, const Jobs& jobs, Parent& parent, SheetAnswer* answer) {
    if (received.request.is_remote) {
        std::swap(received.file, received.memory);
    }
    const Shared shared(received.memory, kSheetMemoryBytes);
    jobs.sheet(received.request, std::move(received.file), shared.bytes(), parent, answer);
}

void open_sound(Received& received, const Jobs& jobs, Parent& parent, SoundAnswer* answer) {
    if (received.request.is_remote) {
        std::swap(received.file, received.memory);
    }
    static const Shared shared(received.memory, kSoundBytes);  // of the process's only sound
    jobs.sound->open(received.request, std::move(received.file), shared.bytes(), parent, answer);
}

void work(Received& received, const Jobs& jobs, Parent& parent, Answer* answer) {
    const Request& request = received.request;
    const bool is_of_sound =
        request.is_remote || request.job == Job::open_sound || request.job == Job::seek_sound;
    const Clock clock(is_of_sound                      ? kSoundTimes
                      : request.job == Job::read_sound ? kNoTimes  // each block has its own
                                                       : kFileTimes);
    try {
        switch (request.job) {
            case Job::tags:
                answer->tags = {};
                jobs.tags(received.file, &answer->tags);
                break;
            case Job::picture:
            case Job::scaled_picture:
                answer->picture = {};
                make_picture(received, jobs, &answer->picture);
                break;
            case Job::playlist:
                answer->playlist = {};
                jobs.playlist(request, Shared(received.file, kPlaylistMemoryBytes).bytes(),
                              &answer->playlist);
                break;
            case Job::sheet:
                answer->sheet = {};
                read_sheet(received, jobs, parent, &answer->sheet);
                break;
            case Job::open_sound:
                answer->sound = {};
                open_sound(received, jobs, parent, &answer->sound);
                break;
            case Job::read_sound:
                answer->read = {};
                jobs.sound->read(request, parent, &answer->read);
                break;
            case Job::seek_sound:
                answer->seek = {};
                jobs.sound->seek(request, &answer->seek);
                break;
            case Job::bytes:
                break;
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

bool has_argument(int argc, char** argv, std::string_view wanted) {
    return std::any_of(argv + 1, argv + argc, [&](const char* given) { return given == wanted; });
}

// Takes standard error from the libraries, whatever they have to say of a file: what is left is for
// this program to speak of itself.
UniqueFd take_standard_error() {
    UniqueFd own(fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 0));
#ifndef NUVIO_SANITIZED
    const UniqueFd nowhere(open("/dev/null", O_WRONLY | O_CLOEXEC));
    dup2(nowhere.get(), STDERR_FILENO);
#endif
    return own;
}

}  // namespace

void Parent::tell(Answer message) {
    message.number = m_number;
    if (!send(message)) {
        _exit(0);
    }
}

Request Parent::ask(const Answer& question) {
    tell(question);
    Received received;
    if (receive(&received) != Receipt::request || received.request.job != Job::bytes) {
        _exit(0);
    }
    return received.request;
}

int serve(int argc, char** argv, const Jobs& jobs) {
    int type = 0;
    socklen_t size = sizeof type;
    if (getsockopt(kSocket, SOL_SOCKET, SO_TYPE, &type, &size) != 0 || type != SOCK_SEQPACKET) {
        std::fprintf(stderr, "%s is started by the programs that have something read\n",
                     program_invocation_short_name);
        return 2;
    }
    const bool has_module = has_argument(argc, argv, "--module");
    if (has_module) {
        jobs.load_module();
    }
    if (has_module || has_argument(argc, argv, "--sound")) {
        // It sleeps where it does not hear of the parent's end.
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        give_back_code_pages();  // most of the libraries is for other kinds of files
    }
    UniqueFd standard_error = take_standard_error();
    std::string error;
    if (!shut_in(!has_argument(argc, argv, "--unfiltered"), &error)) {
        dprintf(standard_error.get(), "%s: not started: %s\n", program_invocation_short_name,
                error.c_str());
        return 1;
    }
    standard_error.reset();
    Parent parent;
    Received received;
    Receipt receipt = Receipt::end;
    while ((receipt = receive(&received)) == Receipt::request) {
        Answer answer{};
        answer.number = parent.m_number = received.request.number;
        work(received, jobs, parent, &answer);
        received = {};
        if (!send(answer)) {
            break;
        }
    }
    return receipt == Receipt::other_build ? 1 : 0;
}

}  // namespace nuvio::reader
