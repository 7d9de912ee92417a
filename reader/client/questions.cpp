#include "reader/client/questions.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <string_view>

#include "common/music/pictures.h"
#include "common/utf8.h"
#include "reader/client/packets.h"

namespace nuvio::reader {

namespace {

bool is_interim(const Answer& answer) {
    return answer.status == Status::progress || answer.status == Status::wants_bytes;
}

}  // namespace

std::string utf8_in(const char (&field)[kMaxText]) {
    const std::string_view text(field, strnlen(field, kMaxText));
    return is_utf8(text) ? std::string(text) : std::string();
}

Questions::Questions(const char* program)
    : m_program(program), m_interruption(eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC)) {}

void Questions::rest() {
    m_process.reset();
}

void Questions::rest(const char* option) {
    rest();
    m_option = option;
}

void Questions::interrupt() {
    eventfd_write(m_interruption.get(), 1);
}

// True when the reader has said something, or has ended.
bool Questions::wait(std::chrono::milliseconds patience) {
    pollfd word{m_process->socket().get(), POLLIN, 0};
    std::array<pollfd, 2> waits{{word, {m_interruption.get(), POLLIN, 0}}};
    int ready = 0;
    do {
        ready = poll(waits.data(), waits.size(), static_cast<int>(patience.count()));
    } while (ready < 0 && errno == EINTR);
    m_is_interrupted = waits[1].revents != 0;
    return ready > 0 && !m_is_interrupted;
}

// The next word that is not said on the way.
Questions::Word Questions::next_word(Meanwhile& meanwhile, Answer* answer) {
    const int socket = m_process->socket().get();
    for (;;) {
        while (!wait(meanwhile.patience())) {
            if (m_is_interrupted || !meanwhile.waits_on()) {
                return Word::none;
            }
        }
        // Descriptors that come with an answer are dropped by the kernel: there is no room for
        // them.
        const ssize_t got = recv(socket, answer, sizeof *answer, MSG_TRUNC | MSG_DONTWAIT);
        if (got != static_cast<ssize_t>(sizeof *answer) || answer->number != m_number) {
            return got > 0 ? Word::lie : Word::end;
        }
        if (!is_interim(*answer)) {
            return Word::answer;
        }
        Request reply{Job::bytes};
        const Meanwhile::Heard heard = meanwhile.heard(*answer, &reply);
        if (heard == Meanwhile::Heard::lie) {
            return Word::lie;
        }
        if (heard == Meanwhile::Heard::question && !send(socket, reply)) {
            return Word::end;
        }
    }
}

Failure Questions::fail(Word last, const Answer& answer) {
    const ChildProcess::End end = m_process->end();
    m_process.reset();
    if (last == Word::none) {
        return {Failure::Kind::disk, "no answer from its disk"};
    }
    if (last == Word::end) {
        return {end.is_by_what_it_read ? Failure::Kind::file : Failure::Kind::machine,
                "its reader " + end.reason};
    }
    const bool is_big = last == Word::answer && answer.status == Status::too_big;
    return {Failure::Kind::file, is_big ? "it takes too much memory to be read" : kReaderLied};
}

Outcome<Answer> Questions::ask(const Request& request, const UniqueFd& file,
                               const UniqueFd& memory) {
    Meanwhile nothing;
    return ask(request, file, memory, nothing);
}

Outcome<Answer> Questions::ask(Request request, const UniqueFd& file, const UniqueFd& memory,
                               Meanwhile& meanwhile) {
    std::string error;
    if (!m_process) {
        m_process = std::make_unique<ChildProcess>(m_program, m_option, &error);
    }
    if (!m_process->socket()) {
        m_process.reset();
        return Failure{Failure::Kind::machine, error};
    }
    request.number = ++m_number;
    Answer answer{};
    const bool is_told = send(m_process->socket().get(), request, file, memory);
    const Word word = is_told ? next_word(meanwhile, &answer) : Word::end;
    if (word == Word::answer && answer.status == Status::done) {
        return answer;
    }
    return fail(word, answer);
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
        return Failure{Failure::Kind::file, kReaderLied};
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
