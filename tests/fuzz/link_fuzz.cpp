// What a session's server sends on its WebSocket: raw bytes to the real library over a socket, with
// the channel's own thread and callbacks. The library's larger blocks end where a page does that
// nobody may touch, for it is not compiled to notice.
#include <libwebsockets.h>
#include <poll.h>
#include <sys/mman.h>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <string>

#include "fuzz/scripted_peer.h"
#include "local/channel/link.h"
#include "local/channel/messages.h"

using namespace local_core;

namespace {

constexpr size_t kPage = 4096;
constexpr size_t kGuarded = 512;  // bytes of a block from which on it has such an end

// In front of each block.
struct alignas(16) Head {
    size_t size;
    void* mapping;  // null: of the heap
    size_t mapped;
};

Head* head_of(void* block) {
    return static_cast<Head*>(block) - 1;
}

void* new_block(size_t size) {
    if (size < kGuarded) {
        auto* const head = static_cast<Head*>(std::malloc(sizeof(Head) + size));
        *head = {size, nullptr, 0};
        return head + 1;
    }
    const size_t used = sizeof(Head) + (size + 15) / 16 * 16;
    const size_t pages = (used + kPage - 1) / kPage * kPage;
    void* const mapping =
        mmap(nullptr, pages + kPage, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    FUZZ_EXPECT(mapping != MAP_FAILED);
    FUZZ_EXPECT(mprotect(static_cast<char*>(mapping) + pages, kPage, PROT_NONE) == 0);
    auto* const head = reinterpret_cast<Head*>(static_cast<char*>(mapping) + pages - used);
    *head = {size, mapping, pages + kPage};
    return head + 1;
}

void free_block(void* block) {
    const Head head = *head_of(block);
    if (head.mapping != nullptr) {
        munmap(head.mapping, head.mapped);
    } else {
        std::free(head_of(block));
    }
}

void* reallocate(void* block, size_t size, const char* /*reason*/) {
    void* const made = size > 0 ? new_block(size) : nullptr;
    if (block != nullptr) {
        if (made != nullptr) {
            std::memcpy(made, block, std::min(size, head_of(block)->size));
        }
        free_block(block);
    }
    return made;
}

std::string handshake(const std::string& request) {
    constexpr std::string_view kKey = "Sec-WebSocket-Key: ";
    const size_t at = request.find(kKey);
    if (at == std::string::npos) {
        return "";  // it was gone before it had asked
    }
    const std::string proof =
        request.substr(at + kKey.size(), 24) + "258EAFA5-E914-47DA-95CA-C5AB0DC85B11";
    unsigned char digest[20];
    lws_SHA1(reinterpret_cast<const unsigned char*>(proof.data()), proof.size(), digest);
    char accept[40];
    lws_b64_encode_string(reinterpret_cast<const char*>(digest), sizeof digest, accept,
                          sizeof accept);
    return std::string(
               "HTTP/1.1 101 x\r\nUpgrade: websocket\r\nConnection: Upgrade\r\n"
               "Sec-WebSocket-Protocol: nuvio-session.v1\r\nSec-WebSocket-Accept: ") +
           accept + "\r\n\r\n";
}

// A frame's head and as many bytes as it says, or fewer.
std::string frame(Script& script) {
    static constexpr size_t kSizes[] = {0,     1,     125,    126,     127,     1000,     65535,
                                        65536, 65537, 131072, 200'000, 300'000, 1'000'000};
    std::string out(1, static_cast<char>(script.byte()));
    const uint8_t choice = script.byte();
    const size_t size = kSizes[choice % std::size(kSizes)];
    if (size < 126) {
        out += static_cast<char>(size);
    } else {
        out += static_cast<char>(size < 65536 ? 126 : 127);
        for (int shift = size < 65536 ? 8 : 56; shift >= 0; shift -= 8) {
            out += static_cast<char>(uint64_t{size} >> shift);
        }
    }
    const auto filling = static_cast<char>(script.byte());
    return out.append(choice < 240 ? size : size / 2, filling);
}

// Until the device is gone or has been idle for a while; takes what it has been told meanwhile.
void hear_out(const nuvio::UniqueFd& peer, Link& link, int idle_ms) {
    char heard[4096];
    pollfd entry{peer.get(), POLLIN, 0};
    while (poll(&entry, 1, idle_ms) == 1 && recv(peer.get(), heard, sizeof heard, 0) > 0) {
    }
    while (const auto incoming = link.take()) {
        const auto* const command = std::get_if<RemoteCommand>(&incoming->message);
        FUZZ_EXPECT(incoming->connection > 0 && (command == nullptr || !command->id.empty()));
        link.say(incoming->connection, write_done("1"));
    }
}

void play(Script& script, const nuvio::UniqueFd& peer, Link& link) {
    enum Step : uint8_t { literal, one_frame, breath, answers, goodbye, steps };
    while (!script.is_over()) {
        const uint8_t step = script.byte();
        switch (step % steps) {
            case literal:
                if (!send_all(peer, script.bytes(1 + step / steps))) {
                    return;
                }
                break;
            case one_frame:
                if (!send_all(peer, frame(script))) {
                    return;
                }
                break;
            case breath:
                hear_out(peer, link, 1);
                break;
            case answers:
                link.put(1, Link::Slot::state, std::string(script.byte(), 'x'));
                break;
            default:
                link.close(write_goodbye("shutdown"));
        }
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static Listener* const listener = [] {
        lws_set_allocator(reallocate);
        return new Listener;
    }();
    Script script(data, size);
    LinkTarget target;
    target.host = "127.0.0.1";
    target.port = listener->port();
    target.path = "/";
    target.token = "token";
    {
        Link link(target, nullptr, [](bool, const std::string&) {});
        std::string request;
        const nuvio::UniqueFd peer = listener->accept(&request);
        if (script.byte() % 8 == 0 || send_all(peer, handshake(request))) {
            play(script, peer, link);
            shutdown(peer.get(), SHUT_WR);
            hear_out(peer, link, 100);
        }
    }
    FUZZ_EXPECT(Link::wait_all_closed(std::chrono::seconds(20)));
    return 0;
}
