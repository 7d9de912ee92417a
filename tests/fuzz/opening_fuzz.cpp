// The opening of a remote track whose server stalls, lies, fails and breaks off where the input
// says, and which is cancelled where the input says: the real parsers, libcurl and a server on
// loopback.
#include <sys/socket.h>

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "fuzz/scripted_peer.h"
#include "fuzz/small_files.h"
#include "local/track/track_decoder.h"

using namespace local_core;

namespace {

constexpr std::chrono::milliseconds kPatience{40};

// What the server does with one request.
struct Plan {
    enum Kind : uint8_t { honest, cut, stall, error, too_long, too_short, blind, other, kinds };
    Kind kind;
    bool cancels;  // when it has come to the place
    size_t place;  // of the file
};

struct Server {
    Listener listener;
    std::string file;
    bool is_radio;
    std::vector<Plan> plans;  // one a connection; the last one goes on
    Interruption& interruption;
    std::mutex mutex;
    std::condition_variable changed;
    bool is_over = false;

    void run() {
        std::string request;
        for (size_t count = 0;; ++count) {
            const nuvio::UniqueFd peer = listener.accept(&request);
            if (!peer) {
                return;
            }
            answer(peer, request, plans[std::min(count, plans.size() - 1)]);
        }
    }

    void answer(const nuvio::UniqueFd& peer, const std::string& request, const Plan& plan) {
        const size_t range = request.find("Range: bytes=");
        const bool is_part = range != std::string::npos && plan.kind != Plan::blind;
        const size_t first =
            is_part ? std::min<size_t>(std::stoul(request.substr(range + 13)), file.size()) : 0;
        const size_t place = std::max(first, std::min(plan.place, file.size()));
        const size_t total = file.size() + (plan.kind == Plan::too_long ? 5000 : 0) +
                             (plan.kind == Plan::other ? first % 7 : 0) -
                             (plan.kind == Plan::too_short ? file.size() - place : 0);
        std::string head = plan.kind == Plan::error ? "HTTP/1.1 500 x\r\n"
                           : is_part                ? "HTTP/1.1 206 x\r\n"
                                                    : "HTTP/1.1 200 x\r\n";
        if (is_radio) {
            head += "icy-name: r\r\nicy-metaint: 512\r\n";
        } else if (plan.kind != Plan::blind) {
            head += "Content-Length: " + std::to_string(total - std::min(first, total)) +
                    "\r\nContent-Range: bytes " + std::to_string(first) + "-" +
                    std::to_string(total - 1) + "/" + std::to_string(total) + "\r\n";
        }
        const auto sent = send_all(peer, head + "\r\n" + file.substr(first, place - first));
        if (plan.cancels) {
            interruption.interrupt();
        }
        if (plan.kind == Plan::stall) {
            std::unique_lock lock(mutex);
            changed.wait_for(lock, 2 * kPatience, [this] { return is_over; });
        } else if (sent && plan.kind != Plan::cut && plan.kind != Plan::error) {
            send_all(peer, std::string_view(file).substr(place));
        }
    }
};

void use(TrackDecoder& decoder, Script& script) {
    FUZZ_EXPECT(decoder.info().frame_bytes > 0 && decoder.info().format.sample_rate > 0);
    constexpr size_t kBytes = 8192;
    for (int n = 0; n < 4; ++n) {
        decoder.begin_read();
        decoder.give(0);
        decoder.give(7);
        decoder.await_block();
        decoder.read(kBytes, [&] {
            if (decoder.done() == 2) {
                decoder.stop();
            }
            decoder.await_block();
            return std::chrono::milliseconds(-1);
        });
        for (size_t i = 0; i < decoder.done(); ++i) {
            const size_t bytes = decoder.bytes_of(i, kBytes);
            FUZZ_EXPECT(bytes <= kBytes);
            decoder.live_title(i);
        }
        decoder.take_own_texts();
        decoder.seek(script.word());
    }
    FUZZ_EXPECT(decoder.failure() == HttpFailure::none || !decoder.last_error().empty());
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    Script script(data, size);
    Interruption interruption;
    Server server{{},
                  small_sounds()[script.byte() % small_sounds().size()],
                  script.byte() % 4 == 1,
                  {},
                  interruption,
                  {},
                  {}};
    for (int n = 1 + script.byte() % 3; n > 0; --n) {
        const uint8_t choice = script.byte();
        server.plans.push_back({static_cast<Plan::Kind>(choice % Plan::kinds), choice >= 192,
                                script.word() % (server.file.size() + 100)});
    }
    for (int n = script.byte() % 4; n > 0; --n) {
        server.file[script.word() % server.file.size()] = static_cast<char>(script.byte());
    }
    std::thread thread([&] { server.run(); });
    Track track{"http://127.0.0.1:" + std::to_string(server.listener.port()) + "/"};
    auto request = std::make_shared<HttpRequest>();
    request->give_up_after = kPatience;
    track.remote = request;
    OpenFailure failure;
    if (const auto decoder = TrackDecoder::open(track, output_of(NUV_AUDIO_QUALITY_HI_RES_LEVEL_2),
                                                interruption, &failure)) {
        use(*decoder, script);
    } else {
        FUZZ_EXPECT(!failure.reason.empty());
    }
    {
        const std::lock_guard lock(server.mutex);
        server.is_over = true;
        server.changed.notify_all();
    }
    server.listener.close();
    thread.join();
    return 0;
}
