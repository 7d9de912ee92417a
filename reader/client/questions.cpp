#include "reader/client/questions.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <string_view>

#include "common/music/pictures.h"

namespace nuvio::reader {

namespace {

constexpr char kLied[] = "its reader lied";

// Memory that both have and none can make smaller: what is mapped of it stays there.
UniqueFd shared_memory(size_t bytes) {
    UniqueFd memory(memfd_create("nuvio-reader", MFD_CLOEXEC | MFD_ALLOW_SEALING));
    const bool is_made =
        memory && ftruncate(memory.get(), static_cast<off_t>(bytes)) == 0 &&
        fcntl(memory.get(), F_ADD_SEALS, F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_SEAL) == 0;
    return is_made ? std::move(memory) : UniqueFd();
}

bool send(int socket, const Request& request, const UniqueFd& file, const UniqueFd& memory) {
    const std::array<int, 2> descriptors{file.get(), memory.get()};
    const size_t bytes = memory ? sizeof descriptors : sizeof(int);
    alignas(cmsghdr) std::array<char, CMSG_SPACE(sizeof descriptors)> control{};
    iovec part{const_cast<Request*>(&request), sizeof request};
    msghdr message{};
    message.msg_iov = &part;
    message.msg_iovlen = 1;
    message.msg_control = control.data();
    message.msg_controllen = CMSG_SPACE(bytes);
    cmsghdr* const rights = CMSG_FIRSTHDR(&message);
    rights->cmsg_level = SOL_SOCKET;
    rights->cmsg_type = SCM_RIGHTS;
    rights->cmsg_len = CMSG_LEN(bytes);
    std::memcpy(CMSG_DATA(rights), descriptors.data(), bytes);
    // One that has not taken the questions before this one is not waited for.
    return sendmsg(socket, &message, MSG_NOSIGNAL | MSG_DONTWAIT) ==
           static_cast<ssize_t>(sizeof request);
}

}  // namespace

Questions::Questions(const char* program)
    : m_program(program), m_interruption(eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC)) {}

void Questions::rest() {
    m_process.reset();
}

void Questions::interrupt() {
    eventfd_write(m_interruption.get(), 1);
}

// True when the reader has said something, or has ended.
bool Questions::wait() {
    std::array<pollfd, 2> waits{
        {{m_process->socket().get(), POLLIN, 0}, {m_interruption.get(), POLLIN, 0}}};
    const auto patience = std::chrono::duration_cast<std::chrono::milliseconds>(kPatience);
    int ready = 0;
    do {
        ready = poll(waits.data(), waits.size(), static_cast<int>(patience.count()));
    } while (ready < 0 && errno == EINTR);
    return ready > 0 && waits[1].revents == 0;
}

Outcome<Answer> Questions::ask(Request request, const UniqueFd& file, const UniqueFd& memory) {
    std::string error;
    if (!m_process) {
        m_process = std::make_unique<ReaderProcess>(m_program, &error);
    }
    const int socket = m_process->socket().get();
    if (socket < 0) {
        m_process.reset();
        return Failure{Failure::Kind::machine, error};
    }
    request.number = ++m_number;
    Answer answer{};
    // Descriptors that come with an answer are dropped by the kernel: there is no room for them.
    const bool is_told = send(socket, request, file, memory);
    const bool is_late = is_told && !wait();
    const ssize_t got =
        is_told && !is_late ? recv(socket, &answer, sizeof answer, MSG_TRUNC | MSG_DONTWAIT) : 0;
    const bool is_answered =
        got == static_cast<ssize_t>(sizeof answer) && answer.number == request.number;
    if (is_answered && answer.status == Status::done) {
        return answer;
    }
    const ReaderProcess::End end = m_process->end();
    m_process.reset();
    if (is_late) {
        return Failure{Failure::Kind::disk, "no answer from its disk"};
    }
    if (got > 0) {
        return Failure{Failure::Kind::file, is_answered && answer.status == Status::too_big
                                                ? "it takes too much memory to be read"
                                                : kLied};
    }
    return Failure{end.is_by_what_it_read ? Failure::Kind::file : Failure::Kind::machine,
                   "its reader " + end.reason};
}

Outcome<Picture> Questions::ask_for_picture(const Request& request, const UniqueFd& file) {
    Picture picture{shared_memory(kMaxPictureBytes)};
    if (!picture.memory) {
        return Failure{Failure::Kind::machine, std::strerror(errno)};
    }
    const Outcome<Answer> answer = ask(request, file, picture.memory);
    if (const auto* const failure = std::get_if<Failure>(&answer)) {
        return *failure;
    }
    const uint64_t size = std::get<Answer>(answer).picture.size;
    if (size == 0) {
        return Picture{};
    }
    std::array<char, kPictureStart> start{};
    if (size > kMaxPictureBytes || pread(picture.memory.get(), start.data(), start.size(), 0) < 0 ||
        picture_kind_of({start.data(), std::min<size_t>(size, start.size())}) == nullptr) {
        return Failure{Failure::Kind::file, kLied};
    }
    picture.size = size;
    return picture;
}

std::string Picture::bytes() const {
    std::string bytes(size, '\0');
    const ssize_t got = pread(memory.get(), bytes.data(), bytes.size(), 0);
    bytes.resize(static_cast<size_t>(std::max<ssize_t>(got, 0)));
    return bytes;
}

}  // namespace nuvio::reader
