// The real server over loopback sockets, on a real event loop that the test runs. Faked are the SDK
// and the renderer's one answer.
#include "local_config/http_server.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/epoll.h>

#include <atomic>
#include <chrono>
#include <deque>
#include <filesystem>
#include <future>
#include <iterator>
#include <random>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "common/unique_fd.h"
#include "fakes/fake_sdk.h"
#include "free_port.h"
#include "loop_fixture.h"

nuv_audio_quality audio_renderer_get_maximum_supported_audio_quality(audio_renderer*) {
    return NUV_AUDIO_QUALITY_CD;
}

namespace {

using namespace std::chrono_literals;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;
using Clock = std::chrono::steady_clock;

// A bare socket.
class Peer {
  public:
    explicit Peer(uint16_t port, const std::string& bytes = "")
        : m_fd(socket(AF_INET, SOCK_STREAM, 0)) {
        const sockaddr_in address = loopback(port);
        m_is_connected =
            connect(m_fd.get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0;
        send(bytes);
    }

    bool is_connected() const { return m_is_connected; }
    // Its own; 0: its descriptor was closed under it.
    uint16_t port() const {
        sockaddr_in own{};
        socklen_t size = sizeof(own);
        getsockname(m_fd.get(), reinterpret_cast<sockaddr*>(&own), &size);
        return ntohs(own.sin_port);
    }
    void send(const std::string& bytes) const {
        ::send(m_fd.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL);
    }
    void finish_sending() const { shutdown(m_fd.get(), SHUT_WR); }
    // All that comes until the server closes, or so many bytes.
    std::string receive(size_t most = SIZE_MAX) const {
        std::string answer;
        char bytes[4096];
        for (ssize_t count = 1; count > 0 && answer.size() < most;) {
            count = recv(m_fd.get(), bytes, std::min(sizeof(bytes), most - answer.size()), 0);
            answer.append(bytes, static_cast<size_t>(std::max<ssize_t>(count, 0)));
        }
        return answer;
    }

  private:
    const nuvio::UniqueFd m_fd;
    bool m_is_connected;
};

std::string request(const std::string& method, const std::string& path,
                    const std::string& headers = "", const std::string& body = "") {
    return method + " " + path + " HTTP/1.1\r\nHost: device\r\n" + headers + "\r\n" + body;
}

std::string post(const std::string& body) {
    return request("POST", "/connect-to-nconnect",
                   "Content-Length: " + std::to_string(body.size()) + "\r\n", body);
}

const std::string kSession =
    R"({"session_id":"s1","jwt_api":{"endpoint":"file:///a","jwt":"t1","exp":11},)"
    R"("jwt_nconnect":{"endpoint":"wss://b","jwt":"t2","exp":12},"become_active":true})";
constexpr const char* kOk = "HTTP/1.1 200 OK";
constexpr const char* kConnectCall = "connect s1 file:///a t1 11 wss://b t2 12 true";

class HttpServer : public LoopTest {
  protected:
    HttpServer() {
        fake_sdk::reset();
        create("Kitchen");
    }
    ~HttpServer() override { free_server(); }

    void create(std::string name) {
        free_server();
        m_name = std::move(name);
        m_info = device_info_new(m_name.c_str(), NUV_DEVICE_TYPE_SPEAKER, "Maker", "Model \"X\"",
                                 "00:01", "app-1", "secret");
        m_server =
            http_server_new(&loop_, m_port, m_info, reinterpret_cast<audio_renderer*>(&m_port));
        http_server_set_core(m_server, fake_sdk::core());
    }
    void free_server() {
        if (m_server != nullptr) {
            http_server_free(std::exchange(m_server, nullptr));
            device_info_free(m_info);
        }
    }
    void start() {
        const auto delegate = http_server_get_local_config_server_delegate(m_server);
        delegate.start(fake_sdk::core(), delegate.context);
    }
    void stop() {
        const auto delegate = http_server_get_local_config_server_delegate(m_server);
        delegate.stop(fake_sdk::core(), delegate.context);
    }

    // What the server answers while the loop runs.
    std::string answer_to(const Peer& peer) {
        auto answer = std::async(std::launch::async, [&] { return peer.receive(); });
        EXPECT_TRUE(run_until([&] { return answer.wait_for(0s) == std::future_status::ready; }));
        return answer.get();
    }
    std::string exchange(const std::string& bytes) { return answer_to(Peer(m_port, bytes)); }
    std::string get(const std::string& path) { return exchange(request("GET", path)); }
    // Until a connection's worker wakes the loop, which does not run; it has run before.
    void wait_for_hand_off() {
        constexpr int kConnectionAndWakeUp = 2;
        const auto deadline = Clock::now() + std::chrono::seconds(10);
        epoll_event ready[kConnectionAndWakeUp];
        while (epoll_wait(uv_backend_fd(&loop_), ready, kConnectionAndWakeUp, 0) <
               kConnectionAndWakeUp) {
            ASSERT_LT(Clock::now(), deadline);
            std::this_thread::sleep_for(1ms);
        }
    }
    // A start after a stop takes effect a little later.
    bool comes_up() {
        return run_until([&] { return get("/get-connect-info").starts_with(kOk); });
    }

    uint16_t m_port = free_port();
    std::string m_name;
    device_info* m_info = nullptr;
    http_server* m_server = nullptr;
};

TEST_F(HttpServer, RefusesWhatItCannotUse) {
    setenv("LOCALDOMAIN", "a.example router.example", 1);  // as a line of the resolver's file
    start();
    http_server_add_own_names(m_server, "other.example, .alocal");
    const std::string huge = "Content-Length: 9999999999999999\r\n";
    const std::string chunked = "Transfer-Encoding: chunked\r\n";
    const std::string path = "/connect-to-nconnect";
    const struct {
        std::string bytes;
        const char* status;
        const char* error;
    } cases[] = {
        {request("HEAD", path, "Origin: http://device.example\r\n"), "405 Method Not Allowed",
         "connect-to-nconnect: Method not allowed: 'HEAD'"},
        {request("POST", "/get-display-info", huge), "405 Method Not Allowed",
         "get-display-info: Method not allowed: 'POST'"},
        {request("POST", path, chunked, "2\r\n{}\r\n0\r\n\r\n"), "411 Length Required",
         "connect-to-nconnect: Missing content length"},
        {request("POST", path, "Content-Length: 65537\r\n"), "413 ",
         "connect-to-nconnect: Request body is too large"},
        {request("POST", path, huge), "413 ", "connect-to-nconnect: Request body is too large"},
        {request("GET", "/get-connect-info", "Sec-Fetch-Site: cross-site\r\n"), "403 Forbidden",
         "get-connect-info: Refused: Sec-Fetch-Site is 'cross-site', none of this device's"},
        {request("POST", path, "Origin: http://device.example\r\n" + huge), "403 Forbidden",
         "connect-to-nconnect: Refused: Origin is 'http://device.example', none of this device's"},
        {"GET /get-connect-info HTTP/1.1\r\nHost: [evil].example:80\r\n\r\n", "403 Forbidden",
         "get-connect-info: Refused: Host is '[evil].example:80', none of this device's"},
        {"GET /get-connect-info HTTP/1.1\r\nHost: one.other.example\r\n\r\n", "403 Forbidden",
         "get-connect-info: Refused: Host is 'one.other.example', none of this device's"},
        {post(""), "400 Bad Request", "connect-to-nconnect: Invalid JSON"},
        {post(std::string(65536, ' ')), "400 Bad Request", "connect-to-nconnect: Invalid JSON"},
    };
    for (const auto& [bytes, status, error] : cases) {
        testing::internal::CaptureStdout();
        const std::string answer = exchange(bytes);  // soon: no body is waited for
        EXPECT_THAT(testing::internal::GetCapturedStdout(),
                    HasSubstr(std::string("ERROR SampleApp: ") + error + "\n"));
        EXPECT_THAT(answer, StartsWith(std::string("HTTP/1.1 ") + status));
    }
    EXPECT_THAT(fake_sdk::take_calls(), IsEmpty());
    for (const char* host :
         {"192.168.1.7:8000", "[fe80::1]:8000", "kitchen", "Kitchen-2.local.", "music.localhost",
          "kitchen.router.example", "Other.example:8000", "kitchen.alocal"}) {
        EXPECT_THAT(exchange("GET /get-display-info HTTP/1.1\r\nHost: " + std::string(host) +
                             "\r\nOrigin: http://" + host + "\r\n\r\n"),
                    StartsWith(kOk));
    }
    EXPECT_THAT(get("/"), StartsWith("HTTP/1.1 404 "));
}

TEST_F(HttpServer, BodyMayComeInPiecesAndIsReadAsFarAsItCame) {
    start();
    std::string body = kSession;
    const std::string bytes = post(body.insert(1, std::string(65536 - body.size(), ' ')));
    const Peer slow(m_port);
    for (size_t at = 0; at < bytes.size(); at += 13'001) {
        slow.send(bytes.substr(at, 13'001));
        std::this_thread::sleep_for(5ms);
    }
    EXPECT_THAT(answer_to(slow), StartsWith(kOk));
    const Peer polite(m_port, request("POST", "/connect-to-nconnect",
                                      "Content-Length: 10\r\nExpect: 100-continue\r\n"));
    EXPECT_EQ(polite.receive(25), "HTTP/1.1 100 Continue\r\n\r\n");
    polite.send("{        }");
    EXPECT_THAT(answer_to(polite), StartsWith("HTTP/1.1 400 Bad Request"));

    const std::pair<std::string, const char*> cuts[] = {
        {kSession, "200 OK"}, {kSession.substr(0, 50), "400 Bad Request"}};
    for (const auto& [part, status] : cuts) {
        const Peer cut(m_port,
                       request("POST", "/connect-to-nconnect", "Content-Length: 1000\r\n", part));
        cut.finish_sending();
        EXPECT_THAT(answer_to(cut), StartsWith(std::string("HTTP/1.1 ") + status));
    }
    EXPECT_THAT(fake_sdk::take_calls(), ElementsAre(kConnectCall, kConnectCall));
}

TEST_F(HttpServer, ResponseThatDoesNotFitIsAnErrorAndTheNextRequestWorks) {
    create(std::string(1500, 'n'));
    start();
    EXPECT_THAT(get("/get-display-info"), HasSubstr(m_name));
    create(std::string(2048, 'n'));
    start();
    EXPECT_THAT(get("/get-display-info"), StartsWith("HTTP/1.1 500 Internal Server Error"));
    EXPECT_THAT(get("/get-connect-info"), StartsWith(kOk));
}

TEST_F(HttpServer, StartRightAfterStopWaitsItsTurnAndAStopInBetweenCancelsIt) {
    stop();
    start();
    for (int round = 0; round < 3; ++round) {
        stop();
        start();
        start();
    }
    EXPECT_TRUE(comes_up());
    stop();
    start();
    stop();
    stop();
    EXPECT_TRUE(run_until([&] { return !Peer(m_port).is_connected(); }));
    run_for(50ms);
    EXPECT_FALSE(Peer(m_port).is_connected());
    start();
    EXPECT_TRUE(comes_up());
}

TEST_F(HttpServer, PortOfAConnectionOfTheProcessIsLeftToIt) {
    start();
    const Peer elsewhere(m_port);
    m_port = elsewhere.port();
    create("Kitchen");
    start();
    EXPECT_EQ(elsewhere.port(), m_port);
}

TEST_F(HttpServer, StopAnswersARequestThatWaitsForTheLoop) {
    start();
    ASSERT_TRUE(comes_up());
    for (const std::string& bytes : {post(kSession), request("GET", "/get-display-info")}) {
        const Peer peer(m_port, bytes);
        // The loop does not run, so the request waits; its wake-up is stale when the loop goes on.
        wait_for_hand_off();
        stop();
        start();
        EXPECT_THAT(peer.receive(), StartsWith("HTTP/1.1 500 Internal Server Error"));
        EXPECT_TRUE(comes_up());
    }
    EXPECT_THAT(fake_sdk::take_calls(), IsEmpty()) << "a cancelled request reached the SDK";
}

TEST_F(HttpServer, RequestThatTheLoopHasAnsweredIsFinishedBeforeTheStop) {
    start();
    for (int round = 0; round < 20; ++round) {
        const Peer peer(m_port, post(kSession));
        ASSERT_TRUE(run_until([] { return !fake_sdk::take_calls().empty(); }));
        stop();
        EXPECT_THAT(answer_to(peer), StartsWith(kOk));
        start();
        ASSERT_TRUE(comes_up());
    }
}

TEST_F(HttpServer, StopsAndStartsAtAnyMomentOfARequest) {
    start();
    std::atomic<bool> done = false;
    std::atomic<int> good = 0;
    std::vector<std::future<void>> clients;
    for (const std::string& bytes : {post(kSession), request("GET", "/get-display-info")}) {
        clients.push_back(std::async(std::launch::async, [&, bytes] {
            while (!done) {
                // Cut off, stopping, or started and not yet complete.
                const std::string answer = Peer(m_port, bytes).receive().substr(0, 15);
                EXPECT_THAT(answer, testing::AnyOf("", "HTTP/1.1 500 In", "HTTP/1.1 404 No", kOk));
                good += answer == kOk ? 1 : 0;
            }
        }));
    }
    std::mt19937 random(1);
    for (int round = 0; round < 100; ++round) {
        run_for(std::chrono::milliseconds(random() % 20));
        round % 2 == 0 ? stop() : start();
    }
    EXPECT_TRUE(comes_up());
    done = true;
    for (std::future<void>& client : clients) {
        run_until([&] { return client.wait_for(0s) == std::future_status::ready; });
    }
    EXPECT_GT(good, 0);
}

TEST_F(HttpServer, FreeWaitsForNoPeerAndLeavesNoSocket) {
    const auto descriptors = [] {
        return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
    };
    const auto before = descriptors();
    start();
    {
        // The first holds the worker in its body, the others fill the queue behind it.
        const Peer in_its_body(m_port,
                               request("POST", "/connect-to-nconnect",
                                       "Content-Length: 1000\r\nExpect: 100-continue\r\n", "{"));
        EXPECT_EQ(in_its_body.receive(25), "HTTP/1.1 100 Continue\r\n\r\n");
        const Peer silent(m_port);
        std::deque<Peer> others;
        for (int more = 0; more < 40; ++more) {
            others.emplace_back(m_port, request("GET", "/get-display-info"));
        }
        free_server();
        EXPECT_THAT(in_its_body.receive(), StartsWith("HTTP/1.1 "))
            << "its stream was not ended: CivetWeb's own waits were slept out";
    }
    EXPECT_EQ(descriptors(), before);
}

TEST_F(HttpServer, LoopSleepsOnceNobodyIsConnected) {
    start();
    EXPECT_THAT(get("/get-connect-info"), StartsWith(kOk));
    run_for(2s);
    uv_timer_t second;
    uv_timer_init(&loop_, &second);
    uv_timer_start(
        &second, [](uv_timer_t*) {}, 1000, 0);
    uv_run(&loop_, UV_RUN_ONCE);
    EXPECT_FALSE(uv_is_active(reinterpret_cast<uv_handle_t*>(&second)))
        << "woken by something else";
    uv_close(reinterpret_cast<uv_handle_t*>(&second), nullptr);
    uv_run(&loop_, UV_RUN_NOWAIT);
}

}  // namespace
