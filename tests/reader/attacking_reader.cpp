// A reader inside its walls that the file it reads has taken over: it does what stands in the file.
// Sound it reads as it should, until it comes to a file that begins with kAttack.
#include <arpa/inet.h>
#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/mman.h>
#include <sys/ptrace.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <climits>
#include <cstdint>
#include <cstring>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "common/music/pictures.h"
#include "reader/inside/serve.h"
#include "reader/inside/sound/sound_work.h"

namespace {

using namespace nuvio::reader;

// Of a picture's two descriptors the second one.
constexpr int kMemory = 4;

// Nothing that an answer could be taken for.
[[noreturn]] void succeed() {
    _exit(0);
}

Answer right_answer() {
    Answer answer{};
    answer.number = 1;
    answer.tags.title[0] = 'x';
    return answer;
}

void answer_as(uint32_t number, size_t size) {
    Answer answer = right_answer();
    answer.number = number;
    iovec part{&answer, size};
    msghdr message{};
    message.msg_iov = &part;
    message.msg_iovlen = 1;
    sendmsg(kSocket, &message, MSG_NOSIGNAL);
}

void send_descriptor() {
    Answer answer = right_answer();
    alignas(cmsghdr) std::array<char, CMSG_SPACE(sizeof(int))> control{};
    iovec part{&answer, sizeof answer};
    msghdr message{};
    message.msg_iov = &part;
    message.msg_iovlen = 1;
    message.msg_control = control.data();
    message.msg_controllen = control.size();
    cmsghdr* const rights = CMSG_FIRSTHDR(&message);
    rights->cmsg_level = SOL_SOCKET;
    rights->cmsg_type = SCM_RIGHTS;
    rights->cmsg_len = CMSG_LEN(sizeof(int));
    std::memcpy(CMSG_DATA(rights), &kSocket, sizeof(int));
    sendmsg(kSocket, &message, MSG_NOSIGNAL);
}

size_t go_deeper(size_t depth) {
    volatile char room[4096];  // NOLINT(modernize-avoid-c-arrays)
    room[depth % sizeof room] = 1;
    if (depth == SIZE_MAX) {
        return 0;
    }
    return go_deeper(depth + 1) + static_cast<size_t>(room[0]);
}

// A call that comes back, whatever it says, has passed the walls.
void expect_no_return(long) {
    succeed();
}

// What is told to be refused; the end comes by what it tries next.
void expect_refusal(long got) {
    if (got < 0) {
        syscall(SYS_getppid);
    }
    succeed();
}

const std::map<std::string, std::function<void()>> kOfTags = {
    {"open a file", [] { expect_refusal(open("/etc/passwd", O_RDONLY)); }},
    {"make a file", [] { expect_refusal(open("made", O_WRONLY | O_CREAT, 0644)); }},
    {"make a socket", [] { expect_no_return(socket(AF_INET, SOCK_STREAM, 0)); }},
    {"connect",
     [] {
         const sockaddr_in place{AF_INET, htons(80), {htonl(INADDR_LOOPBACK)}, {}};
         expect_no_return(
             connect(kSocket, reinterpret_cast<const sockaddr*>(&place), sizeof place));
     }},
    {"listen", [] { expect_no_return(listen(kSocket, 1)); }},
    {"execute",
     [] {
         char name[] = "/bin/true";
         char* arguments[] = {name, nullptr};
         expect_no_return(execve(name, arguments, nullptr));
     }},
    {"fork", [] { expect_no_return(syscall(SYS_clone, SIGCHLD, 0, 0, 0, 0)); }},
    {"trace the parent",
     [] { expect_no_return(ptrace(PTRACE_ATTACH, getppid(), nullptr, nullptr)); }},
    {"kill the parent", [] { expect_no_return(syscall(SYS_kill, -1, SIGTERM)); }},
    {"make code",
     [] {
         expect_no_return(reinterpret_cast<long>(
             mmap(nullptr, 4096, PROT_READ | PROT_EXEC, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0)));
     }},
    {"lift the limits", [] { expect_no_return(syscall(SYS_prlimit64, 0, 0, nullptr, nullptr)); }},
    {"turn for ever",
     [] {
         volatile unsigned turns = 0;
         while (turns == turns) {
         }
     }},
    {"take memory",
     [] {
         std::vector<std::string> taken;
         while (taken.size() < 512) {
             taken.emplace_back(size_t{1} << 20U, 'x');
         }
         succeed();
     }},
    {"take the stack", [] { expect_no_return(static_cast<long>(go_deeper(0))); }},
    {"touch nothing",
     [] {
         void* const wall = mmap(nullptr, 4096, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
         *static_cast<volatile char*>(wall) = 1;
     }},
    {"half an answer", [] { answer_as(1, sizeof(Answer) / 2); }},
    {"an answer of another's", [] { answer_as(7, sizeof(Answer)); }},
    {"a flood",
     [] {
         for (int i = 0; i < 64; ++i) {
             answer_as(1, sizeof(Answer));
         }
     }},
    {"a descriptor", send_descriptor},
    {"silence",
     [] {
         Request none{};
         expect_no_return(read(kSocket, &none, sizeof none));
     }},
    {"leave", succeed},
};

std::string text_of(const nuvio::UniqueFd& file) {
    std::array<char, 64> text{};
    const ssize_t got = pread(file.get(), text.data(), text.size(), 0);
    return {text.data(), static_cast<size_t>(std::max<ssize_t>(got, 0))};
}

void tags(const nuvio::UniqueFd& file, TagsAnswer* answer) {
    const std::string what = text_of(file);
    if (what == "lie") {
        std::fill_n(answer->title, kMaxText, '\xff');
        std::fill_n(answer->artist, kMaxText, 'a');
        answer->disc = answer->number = answer->year = UINT_MAX;
        answer->rate_hz = answer->channels = answer->bits = UINT_MAX;
        answer->duration_ms = LLONG_MIN;
    } else if (const auto attack = kOfTags.find(what); attack != kOfTags.end()) {
        attack->second();
    } else {
        std::copy(what.begin(), what.end(), answer->title);
    }
}

void picture(const nuvio::UniqueFd& file, char* shared, PictureAnswer* answer) {
    char what = 0;
    static_cast<void>(pread(file.get(), &what, 1, 0) == 1);
    std::memcpy(shared, "GIF89a", 6);
    switch (what) {
        case 's':  // take it from under the parent
            expect_no_return(ftruncate(kMemory, 0));
            break;
        case 'l':  // a length beyond it
            answer->size = nuvio::kMaxPictureBytes + 1;
            break;
        case 'h':  // one that no machine has
            answer->size = uint64_t{1} << 62U;
            break;
        case 't':  // a text that a browser would run
            std::memcpy(shared, "<html>", 6);
            answer->size = 6;
            break;
        default:
            answer->size = 6;
    }
}

constexpr char kAttack[] = "attack: ";

// What the second block of a sound comes to. `page` tells of the first one, with silence in it.
using OfSound = void (*)(SoundPage& page, Parent& parent);
const std::map<std::string, OfSound> kOfSound = {
    {"bytes beyond a block", [](SoundPage& page, Parent&) { page.blocks[1].bytes = UINT_MAX; }},
    {"half a frame", [](SoundPage& page, Parent&) { page.blocks[1].bytes = 1023; }},
    {"a block of nothing", [](SoundPage& page, Parent&) { page.blocks[1].bytes = 0; }},
    {"more blocks than there are", [](SoundPage& page, Parent&) { page.done = UINT_MAX - 1; }},
    {"blocks that come again", [](SoundPage& page, Parent&) { page.done = 0; }},
    {"news that nobody waits for",
     [](SoundPage&, Parent& parent) {
         for (;;) {
             Answer news{};
             news.status = Status::progress;
             parent.tell(news);
         }
     }},
    {"bytes of a file",
     [](SoundPage&, Parent& parent) {
         Answer question{};
         question.status = Status::wants_bytes;
         parent.ask(question);
         succeed();
     }},
    {"another's answer",
     [](SoundPage&, Parent&) {
         answer_as(99, sizeof(Answer));
         succeed();
     }},
    {"take the ring away",
     [](SoundPage&, Parent&) {
         for (int descriptor = 1; descriptor < 8; ++descriptor) {
             expect_no_return(ftruncate(descriptor, 0));
         }
     }},
    {"write beyond the ring",
     [](SoundPage& page, Parent&) {
         auto* const beyond = reinterpret_cast<volatile char*>(&page) + kSoundBytes;
         for (size_t i = 0; i < (size_t{1} << 30U); ++i) {
             beyond[i] = 1;
         }
     }},
};

class AttackingSound : public SoundWork {
  public:
    void open(const Request& request, nuvio::UniqueFd file, char* shared, Parent& parent,
              SoundAnswer* answer) override {
        const std::string text = file ? text_of(file) : "";
        if (!text.starts_with(kAttack)) {
            SoundWork::open(request, std::move(file), shared, parent, answer);
            return;
        }
        m_page = &sound_page(shared);
        m_attack = text.substr(std::strlen(kAttack));
        answer->is_readable = 1;
        answer->is_seekable = 0xff;
        answer->rate_hz = m_attack == "any rate" ? UINT_MAX : 44100;
        answer->channels = m_attack == "any channels" ? UINT_MAX : 2;
        answer->frames = m_attack == "any length" ? uint64_t{1} << 62U : 20'000'000;
        std::fill_n(answer->title, kMaxSoundText, '\xff');
    }

    void read(const Request& request, Parent& parent, ReadAnswer* answer) override {
        if (m_attack.empty()) {
            SoundWork::read(request, parent, answer);
            return;
        }
        if (m_attack == "say nothing") {
            for (;;) {
                m_page->is_awaited = 0;
            }
        }
        if (m_attack == "nothing for an answer") {
            answer->has_new_texts = 1;
            return;
        }
        for (uint32_t n = 0; n < 2; ++n) {
            m_page->blocks[n].bytes = 4;
        }
        m_page->done = 1;
        if (const auto attack = kOfSound.find(m_attack); attack != kOfSound.end()) {
            m_page->done = 2;
            attack->second(*m_page, parent);
        } else {
            kOfTags.at(m_attack)();
        }
    }

  private:
    SoundPage* m_page = nullptr;
    std::string m_attack;
};

}  // namespace

int main(int argc, char** argv) {
    AttackingSound sound;
    return serve(argc, argv,
                 {.tags = tags, .picture = picture, .sound = &sound, .load_module = [] {}});
}
