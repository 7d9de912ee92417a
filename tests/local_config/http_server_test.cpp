// The real server over loopback sockets, on a real event loop that runs on a thread of the test.
// Faked are the SDK and the renderer's one answer.
#include "local_config/http_server.h"

#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>
#include <uv.h>

#include <atomic>
#include <chrono>
#include <deque>
#include <filesystem>
#include <functional>
#include <future>
#include <iterator>
#include <memory>
#include <mutex>
#include <random>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "fakes/fake_sdk.h"

nuv_audio_quality audio_renderer_get_maximum_supported_audio_quality(audio_renderer*) {
    return NUV_AUDIO_QUALITY_CD;
}

namespace {

using namespace std::chrono_literals;
using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::StartsWith;
using Clock = std::chrono::steady_clock;
constexpr std::chrono::seconds PATIENCE{10};

// ---- A loop on its own thread, which does what it is told ---------------------------------------

class LoopThread {
  public:
    LoopThread() {
        uv_loop_init(&m_loop);
        uv_async_init(&m_loop, &m_wake,
                      [](uv_async_t* wake) { static_cast<LoopThread*>(wake->data)->run_tasks(); });
        uv_prepare_init(&m_loop, &m_turn);
        uv_prepare_start(
            &m_turn, [](uv_prepare_t* turn) { ++static_cast<LoopThread*>(turn->data)->m_turns; });
        m_wake.data = m_turn.data = this;
        m_thread = std::thread([this] { uv_run(&m_loop, UV_RUN_DEFAULT); });
    }
    // Fails when a handle was left open.
    ~LoopThread() {
        run([this] {
            uv_close(reinterpret_cast<uv_handle_t*>(&m_wake), nullptr);
            uv_close(reinterpret_cast<uv_handle_t*>(&m_turn), nullptr);
        });
        m_thread.join();
        EXPECT_EQ(uv_loop_close(&m_loop), 0);
    }
    LoopThread(const LoopThread&) = delete;
    LoopThread& operator=(const LoopThread&) = delete;

    uv_loop_t* get() { return &m_loop; }
    // How often the loop has looked for work.
    int turns() const { return m_turns; }

    void post(std::function<void()> task) {
        {
            const std::scoped_lock lock(m_mutex);
            m_tasks.push_back(std::move(task));
        }
        uv_async_send(&m_wake);
    }
    void run(const std::function<void()>& task) {
        std::promise<void> done;
        post([&] {
            task();
            done.set_value();
        });
        done.get_future().wait();
    }

  private:
    void run_tasks() {
        std::deque<std::function<void()>> tasks;
        {
            const std::scoped_lock lock(m_mutex);
            tasks.swap(m_tasks);
        }
        for (const auto& task : tasks) {
            task();
        }
    }

    uv_loop_t m_loop{};
    uv_async_t m_wake{};
    uv_prepare_t m_turn{};
    std::atomic<int> m_turns = 0;
    std::mutex m_mutex;
    std::deque<std::function<void()>> m_tasks;
    std::thread m_thread;
};

// ---- A peer with a bare socket ------------------------------------------------------------------

class Peer {
  public:
    explicit Peer(uint16_t port) : m_fd(socket(AF_INET, SOCK_STREAM, 0)) {
        const sockaddr_in address = loopback(port);
        m_is_connected =
            connect(m_fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0;
    }
    ~Peer() { close(m_fd); }
    Peer(const Peer&) = delete;
    Peer& operator=(const Peer&) = delete;

    static sockaddr_in loopback(uint16_t port) {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(port);
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        return address;
    }

    bool is_connected() const { return m_is_connected; }
    bool send(const std::string& bytes) const {
        return ::send(m_fd, bytes.data(), bytes.size(), MSG_NOSIGNAL) ==
               static_cast<ssize_t>(bytes.size());
    }
    // Breaks the connection once the server is reading.
    void send_and_reset(const std::string& bytes) {
        send(bytes);
        std::this_thread::sleep_for(100ms);
        const linger at_once{.l_onoff = 1, .l_linger = 0};
        setsockopt(m_fd, SOL_SOCKET, SO_LINGER, &at_once, sizeof(at_once));
    }
    void finish_sending() const { shutdown(m_fd, SHUT_WR); }
    // All that comes until the server closes.
    std::string receive() const {
        std::string answer;
        char bytes[4096];
        for (ssize_t count = 0; (count = recv(m_fd, bytes, sizeof(bytes), 0)) > 0;) {
            answer.append(bytes, static_cast<size_t>(count));
        }
        return answer;
    }

  private:
    int m_fd;
    bool m_is_connected;
};

// Below the ports that the kernel gives to clients: one that knocks on a closed port there may be
// connected to itself.
uint16_t free_port() {
    for (uint32_t attempt = 0;; ++attempt) {
        const auto port = static_cast<uint16_t>(20'000 + (getpid() + attempt) % 10'000);
        const sockaddr_in address = Peer::loopback(port);
        const int fd = socket(AF_INET, SOCK_STREAM, 0);
        const int rc = bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address));
        close(fd);
        if (rc == 0) {
            return port;
        }
    }
}

std::string request(const std::string& method, const std::string& path,
                    const std::string& headers = "", const std::string& body = "") {
    return method + " " + path + " HTTP/1.1\r\nHost: device\r\n" + headers + "\r\n" + body;
}

std::string post(const std::string& body) {
    return request("POST", "/connect-to-nconnect",
                   "Content-Length: " + std::to_string(body.size()) + "\r\n", body);
}

const std::string SESSION =
    R"({"session_id":"s1","jwt_api":{"endpoint":"file:///a","jwt":"t1","exp":11},)"
    R"("jwt_nconnect":{"endpoint":"wss://b","jwt":"t2","exp":12},"become_active":true})";
constexpr const char* CONNECT_CALL = "connect s1 file:///a t1 11 wss://b t2 12 true";

// Set by a test to hold the loop inside nuv_connect_connect.
std::promise<void>* g_entered = nullptr;
std::shared_future<void> g_released;

class HttpServer : public testing::Test {
  protected:
    HttpServer() {
        fake_sdk::reset();
        create("Kitchen");
    }
    ~HttpServer() override {
        free_server();
        device_info_free(m_info);
    }

    void create(const char* name) {
        m_name = name;
        m_info = device_info_new(m_name.c_str(), NUV_DEVICE_TYPE_SPEAKER, "Maker", "Model \"X\"",
                                 "00:01", "app-1", "secret");
        m_loop.run([this] {
            m_server = http_server_new(m_loop.get(), m_port, m_info,
                                       reinterpret_cast<audio_renderer*>(&m_port));
            http_server_set_core(m_server, fake_sdk::core());
        });
    }
    void free_server() {
        if (m_server != nullptr) {
            m_loop.run([this] { http_server_free(std::exchange(m_server, nullptr)); });
        }
    }
    void rename(const char* name) {
        free_server();
        device_info_free(m_info);
        create(name);
    }

    nuv_local_config_server_delegate delegate() {
        return http_server_get_local_config_server_delegate(m_server);
    }
    void start() {
        m_loop.run([this] { delegate().start(fake_sdk::core(), delegate().context); });
    }
    void stop() {
        m_loop.run([this] { delegate().stop(fake_sdk::core(), delegate().context); });
    }

    std::string exchange(const std::string& bytes) const {
        const Peer peer(m_port);
        peer.send(bytes);
        return peer.receive();
    }
    std::string get(const std::string& path) const { return exchange(request("GET", path)); }
    // A start after a stop takes effect a little later.
    bool comes_up() const {
        for (const auto end = Clock::now() + PATIENCE; Clock::now() < end;) {
            if (get("/get-connect-info").starts_with("HTTP/1.1 200")) {
                return true;
            }
            std::this_thread::sleep_for(5ms);
        }
        return false;
    }
    bool goes_down() const {
        for (const auto end = Clock::now() + PATIENCE; Clock::now() < end;) {
            if (!Peer(m_port).is_connected()) {
                return true;
            }
            std::this_thread::sleep_for(5ms);
        }
        return false;
    }

    uint16_t m_port = free_port();
    LoopThread m_loop;
    std::string m_name;
    device_info* m_info = nullptr;
    http_server* m_server = nullptr;
};

// ---- The endpoints ------------------------------------------------------------------------------

TEST_F(HttpServer, DescribesTheDevice) {
    start();
    const std::string answer = get("/get-display-info");
    const std::string body =
        R"({"friendly_name":"Kitchen","serial_number":"00:01","brand_display_name":"Maker",)"
        R"("model_display_name":"Model \"X\"","max_audio_quality":"CD","type":"SPEAKER"})";
    EXPECT_THAT(answer, StartsWith("HTTP/1.1 200 OK\r\n"));
    EXPECT_THAT(answer, HasSubstr("Content-Type: application/json\r\n"));
    EXPECT_THAT(answer, HasSubstr("Content-Length: " + std::to_string(body.size()) + "\r\n"));
    EXPECT_THAT(answer, EndsWith("\r\n\r\n" + body));
}

TEST_F(HttpServer, TellsTheCurrentSession) {
    start();
    EXPECT_THAT(get("/get-connect-info"),
                EndsWith("\r\n\r\n{\"app_id\":\"app-1\",\"current_session_id\":\"session-1\"}"));
    fake_sdk::Values values;
    values.session_id = "";
    fake_sdk::set_values(values);
    EXPECT_THAT(get("/get-connect-info"), EndsWith("\"current_session_id\":\"\"}"));

    fake_sdk::set_result("get_session_id", NUV_ERROR_INTERNAL);
    testing::internal::CaptureStdout();
    const std::string answer = get("/get-connect-info");
    EXPECT_THAT(testing::internal::GetCapturedStdout(),
                HasSubstr("ERROR SampleApp: get-connect-info: Unable to retrieve current session "
                          "ID\n"));
    EXPECT_THAT(answer, StartsWith("HTTP/1.1 500 Internal Server Error\r\n"));
}

TEST_F(HttpServer, HandsASessionToTheSdk) {
    start();
    testing::internal::CaptureStdout();
    const std::string answer = exchange(post(SESSION));
    const std::string log = testing::internal::GetCapturedStdout();
    EXPECT_THAT(answer, StartsWith("HTTP/1.1 200 OK\r\n"));
    EXPECT_THAT(answer, HasSubstr("Content-Type: application/json\r\nContent-Length: 0\r\n"));
    EXPECT_THAT(answer, EndsWith("\r\n\r\n"));
    EXPECT_THAT(fake_sdk::take_calls(), ElementsAre(CONNECT_CALL));

    size_t at = 0;
    for (const char* line :
         {"INFO SampleApp: API endpoint invoked: connect-to-nconnect\n",
          "DEBUG SampleApp: Session ID: s1\n", ": JWT API:\n", ":     Endpoint: file:///a\n",
          ":     JWT: t1\n", ":     Exp: 11\n", ": JWT NConnect:\n", ":     Endpoint: wss://b\n",
          ":     JWT: t2\n", ":     Exp: 12\n", "DEBUG SampleApp: Become Active: true\n"}) {
        at = log.find(line, at);
        ASSERT_NE(at, std::string::npos) << line;
    }

    fake_sdk::set_result("connect", NUV_ERROR_TOKEN_EXPIRED);
    EXPECT_THAT(exchange(post(SESSION)), StartsWith("HTTP/1.1 500 Internal Server Error\r\n"));
}

TEST_F(HttpServer, RefusesWhatItCannotUse) {
    start();
    const std::string huge = "Content-Length: 9999999999999999\r\n";
    const std::string chunked = "Transfer-Encoding: chunked\r\n";
    const std::string path = "/connect-to-nconnect";
    const struct {
        std::string bytes;
        const char* status;
        const char* error;
    } cases[] = {
        {request("HEAD", path), "405 Method Not Allowed",
         "connect-to-nconnect: Method not allowed: 'HEAD'"},
        {request("PUT", "/get-display-info", "Content-Length: 2\r\n", "{}"),
         "405 Method Not Allowed", "get-display-info: Method not allowed: 'PUT'"},
        {request("POST", "/get-display-info", huge), "405 Method Not Allowed",
         "get-display-info: Method not allowed: 'POST'"},
        {request("POST", "/get-connect-info", chunked, "2\r\n{}\r\n0\r\n\r\n"),
         "405 Method Not Allowed", "get-connect-info: Method not allowed: 'POST'"},
        {request("POST", path, chunked, "2\r\n{}\r\n0\r\n\r\n"), "411 Length Required",
         "connect-to-nconnect: Missing content length"},
        {request("POST", path, "Content-Length: 65537\r\n"), "413 ",
         "connect-to-nconnect: Request body is too large"},
        {request("POST", path, huge), "413 ", "connect-to-nconnect: Request body is too large"},
        {post(""), "400 Bad Request", "connect-to-nconnect: Invalid JSON"},
        {post(std::string(65536, ' ')), "400 Bad Request", "connect-to-nconnect: Invalid JSON"},
        {post(std::string(60000, '[')), "400 Bad Request", "connect-to-nconnect: Invalid JSON"},
        {post("{}"), "400 Bad Request",
         "connect-to-nconnect: Request does not contain \"session_id\""},
    };
    for (const auto& [bytes, status, error] : cases) {
        testing::internal::CaptureStdout();
        const auto began = Clock::now();
        const std::string answer = exchange(bytes);
        const auto took = Clock::now() - began;
        EXPECT_THAT(testing::internal::GetCapturedStdout(),
                    HasSubstr(std::string("ERROR SampleApp: ") + error + "\n"));
        EXPECT_THAT(answer, StartsWith(std::string("HTTP/1.1 ") + status));
        EXPECT_LT(took, 10s) << "the peer waits for a body that nobody reads";
    }
    EXPECT_THAT(fake_sdk::take_calls(), IsEmpty());
    EXPECT_THAT(get("/"), StartsWith("HTTP/1.1 404 "));
    EXPECT_THAT(get("/../../../../etc/hostname"), StartsWith("HTTP/1.1 404 "));
}

TEST_F(HttpServer, BodyCutShortIsReadAsFarAsItCame) {
    start();
    const auto send_cut = [this](const std::string& body) {
        const Peer peer(m_port);
        peer.send(request("POST", "/connect-to-nconnect", "Content-Length: 1000\r\n", body));
        peer.finish_sending();
        return peer.receive();
    };
    EXPECT_THAT(send_cut(SESSION), StartsWith("HTTP/1.1 200 OK\r\n"));
    EXPECT_THAT(send_cut(SESSION.substr(0, 50)), StartsWith("HTTP/1.1 400 Bad Request\r\n"));
    EXPECT_THAT(fake_sdk::take_calls(), ElementsAre(CONNECT_CALL));

    testing::internal::CaptureStdout();
    Peer(m_port).send_and_reset(
        request("POST", "/connect-to-nconnect", "Content-Length: 1000\r\n", SESSION));
    EXPECT_TRUE(comes_up());  // behind it
    EXPECT_THAT(testing::internal::GetCapturedStdout(),
                HasSubstr("ERROR SampleApp: connect-to-nconnect: Failed to read data\n"));
    EXPECT_THAT(fake_sdk::take_calls(), IsEmpty());
}

TEST_F(HttpServer, BodyMayComeInPieces) {
    start();
    std::string body = SESSION;
    body.insert(1, std::string(65536 - body.size(), ' '));
    const std::string bytes = post(body);
    const Peer peer(m_port);
    for (size_t at = 0; at < bytes.size(); at += 13'001) {
        ASSERT_TRUE(peer.send(bytes.substr(at, 13'001)));
        std::this_thread::sleep_for(5ms);
    }
    EXPECT_THAT(peer.receive(), StartsWith("HTTP/1.1 200 OK\r\n"));
    EXPECT_THAT(fake_sdk::take_calls(), ElementsAre(CONNECT_CALL));
}

TEST_F(HttpServer, ResponseThatDoesNotFitIsAnErrorAndTheNextRequestWorks) {
    rename(std::string(1500, 'n').c_str());
    start();
    EXPECT_THAT(get("/get-display-info"), HasSubstr(std::string(1500, 'n')));
    rename(std::string(2048, 'n').c_str());
    start();
    testing::internal::CaptureStdout();
    const std::string answer = get("/get-display-info");
    EXPECT_THAT(testing::internal::GetCapturedStdout(),
                HasSubstr("ERROR SampleApp: get-display-info: Response does not fit"));
    EXPECT_THAT(answer, StartsWith("HTTP/1.1 500 Internal Server Error\r\n"));
    EXPECT_THAT(get("/get-connect-info"), StartsWith("HTTP/1.1 200 OK\r\n"));
}

TEST_F(HttpServer, ManyClientsAtOnceEachGetTheirAnswer) {
    start();
    std::atomic<int> good = 0;
    std::vector<std::thread> clients;
    clients.reserve(8);
    for (int client = 0; client < 8; ++client) {
        clients.emplace_back([&, client] {
            for (int round = 0; round < 20; ++round) {
                const bool asks = (client + round) % 2 == 0;
                const std::string answer =
                    asks ? get("/get-connect-info") : exchange(post(SESSION));
                good += answer.starts_with("HTTP/1.1 200 OK\r\n") ? 1 : 0;
            }
        });
    }
    for (std::thread& client : clients) {
        client.join();
    }
    EXPECT_EQ(good, 160);
    EXPECT_EQ(fake_sdk::take_calls().size(), 80U);
}

// ---- Starting and stopping ----------------------------------------------------------------------

TEST_F(HttpServer, RepeatedStartsAndStopsAreOnlyLogged) {
    testing::internal::CaptureStdout();
    stop();
    start();
    start();
    EXPECT_TRUE(comes_up());
    stop();
    stop();
    EXPECT_TRUE(goes_down());
    const std::string log = testing::internal::GetCapturedStdout();
    EXPECT_THAT(log, HasSubstr("TRACE SampleApp: Local configuration server is already stopped\n"));
    EXPECT_THAT(log, HasSubstr("INFO SampleApp: Starting Local configuration server\n"));
    EXPECT_THAT(log, HasSubstr("TRACE SampleApp: Local configuration server is already running\n"));
    EXPECT_THAT(log, HasSubstr("INFO SampleApp: Stopping Local configuration server\n"));
    EXPECT_THAT(log, Not(HasSubstr("ERROR")));
}

TEST_F(HttpServer, StartRightAfterStopWaitsItsTurnAndAStopInBetweenCancelsIt) {
    start();
    m_loop.run([this] {
        const auto server = delegate();
        for (int round = 0; round < 3; ++round) {
            server.stop(fake_sdk::core(), server.context);
            server.start(fake_sdk::core(), server.context);
        }
    });
    EXPECT_TRUE(comes_up());
    m_loop.run([this] {
        const auto server = delegate();
        server.stop(fake_sdk::core(), server.context);
        server.start(fake_sdk::core(), server.context);
        server.stop(fake_sdk::core(), server.context);
    });
    EXPECT_TRUE(goes_down());
    std::this_thread::sleep_for(50ms);
    EXPECT_FALSE(Peer(m_port).is_connected());
    start();
    EXPECT_TRUE(comes_up());
}

TEST_F(HttpServer, PortInUseIsLoggedAndALaterStartWorks) {
    {
        const int fd = socket(AF_INET, SOCK_STREAM, 0);
        const sockaddr_in address = Peer::loopback(m_port);
        EXPECT_EQ(bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)), 0);
        listen(fd, 1);
        testing::internal::CaptureStdout();
        start();
        EXPECT_THAT(testing::internal::GetCapturedStdout(),
                    HasSubstr("ERROR SampleApp: Unable to start HTTP server\n"));
        close(fd);
    }
    start();
    EXPECT_TRUE(comes_up());
}

TEST_F(HttpServer, StopAnswersARequestThatWaitsForTheLoop) {
    start();
    for (const std::string& bytes : {post(SESSION), request("GET", "/get-display-info")}) {
        const Peer peer(m_port);
        std::string answer;
        // The request comes while the loop is busy here, so it waits; its wake-up is stale when the
        // loop goes on.
        m_loop.run([&] {
            peer.send(bytes);
            std::this_thread::sleep_for(100ms);
            delegate().stop(fake_sdk::core(), delegate().context);
            delegate().start(fake_sdk::core(), delegate().context);
            answer = peer.receive();
        });
        EXPECT_THAT(answer, StartsWith("HTTP/1.1 500 Internal Server Error\r\n"));
        EXPECT_TRUE(comes_up());
    }
    EXPECT_THAT(fake_sdk::take_calls(), IsEmpty()) << "a cancelled request reached the SDK";
}

TEST_F(HttpServer, RequestThatTheLoopIsAtWorkOnIsFinishedBeforeTheStop) {
    start();
    std::promise<void> entered;
    std::promise<void> released;
    g_entered = &entered;
    g_released = released.get_future().share();
    fake_sdk::on_call([](const std::string&) {
        g_entered->set_value();
        g_released.wait();
    });
    const Peer peer(m_port);
    peer.send(post(SESSION));
    entered.get_future().wait();
    m_loop.post([this] { delegate().stop(fake_sdk::core(), delegate().context); });
    released.set_value();
    EXPECT_THAT(peer.receive(), StartsWith("HTTP/1.1 200 OK\r\n"));
    EXPECT_TRUE(goes_down());
}

TEST_F(HttpServer, StopsAndStartsAtAnyMomentOfARequest) {
    start();
    std::atomic<bool> done = false;
    std::atomic<int> good = 0;
    std::atomic<int> bad = 0;
    std::vector<std::thread> clients;
    for (const std::string& bytes : {post(SESSION), request("GET", "/get-display-info")}) {
        clients.emplace_back([&, bytes] {
            while (!done) {
                const std::string answer = exchange(bytes);
                // Cut off, stopping, or started and not yet complete.
                const bool is_expected = answer.empty() ||
                                         answer.starts_with("HTTP/1.1 500 Internal Server Error") ||
                                         answer.starts_with("HTTP/1.1 404 Not Found") ||
                                         answer.starts_with("HTTP/1.1 200 OK");
                bad += is_expected ? 0 : 1;
                good += answer.starts_with("HTTP/1.1 200 OK") ? 1 : 0;
            }
        });
    }
    std::mt19937 random(1);
    for (int round = 0; round < 50; ++round) {
        std::this_thread::sleep_for(std::chrono::microseconds(random() % 20'000));
        stop();
        std::this_thread::sleep_for(std::chrono::microseconds(random() % 5'000));
        start();
    }
    EXPECT_TRUE(comes_up());
    done = true;
    for (std::thread& client : clients) {
        client.join();
    }
    EXPECT_EQ(bad, 0);
    EXPECT_GT(good, 0);
}

TEST_F(HttpServer, FreeIsQuickAndLeavesNoSocketWhateverThePeersDo) {
    const auto descriptors = [] {
        return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
    };
    const auto before = descriptors();
    start();
    std::vector<std::unique_ptr<Peer>> peers;
    const auto add = [&](const std::string& bytes) {
        peers.push_back(std::make_unique<Peer>(m_port));
        peers.back()->send(bytes);
    };
    // The first holds the worker in its body, the others fill the queue behind it.
    add(request("POST", "/connect-to-nconnect", "Content-Length: 1000\r\n", "{"));
    add("");
    add("GET /get-disp");
    for (int more = 0; more < 40; ++more) {
        add(request("GET", "/get-display-info"));
    }
    std::this_thread::sleep_for(100ms);
    const auto began = Clock::now();
    free_server();
    EXPECT_LT(Clock::now() - began, 1s);
    EXPECT_EQ(descriptors(), before + static_cast<ptrdiff_t>(peers.size()));
}

// ---- Peers that take their time -----------------------------------------------------------------

TEST_F(HttpServer, PeersThatDoNotFinishTheirRequestsAreCutOffTogether) {
    start();
    const Peer by_the_byte(m_port);
    by_the_byte.send(request("POST", "/connect-to-nconnect", "Content-Length: 60000\r\n"));
    const Peer silent_in_body(m_port);
    silent_in_body.send(request("POST", "/connect-to-nconnect", "Content-Length: 10\r\n", "{"));
    const Peer silent_in_headers(m_port);
    silent_in_headers.send("GET /get-display-info HTTP/1.1\r\nHost");
    const Peer silent(m_port);
    std::atomic<bool> done = false;
    std::thread drip([&] {
        while (!done && by_the_byte.send(" ")) {
            std::this_thread::sleep_for(100ms);
        }
    });
    std::this_thread::sleep_for(100ms);
    const auto began = Clock::now();
    // As old as they are when its turn comes, and complete.
    EXPECT_THAT(get("/get-connect-info"), StartsWith("HTTP/1.1 200 OK\r\n"));
    EXPECT_LT(Clock::now() - began, 15s);  // 5 s each in turn would be 20
    EXPECT_EQ(silent.receive(), "");
    done = true;
    drip.join();
}

TEST_F(HttpServer, CrowdThatAsksNothingIsPassedInNoTime) {
    constexpr int PEERS = 60;
    start();
    std::vector<std::unique_ptr<Peer>> crowd;
    for (int number = 0; number < PEERS; ++number) {
        crowd.push_back(std::make_unique<Peer>(m_port));
        crowd.back()->send("G");
    }
    const auto began = Clock::now();
    EXPECT_THAT(get("/get-connect-info"), StartsWith("HTTP/1.1 200 OK\r\n"));
    EXPECT_LT(Clock::now() - began, 15s);
}

TEST_F(HttpServer, LoopSleepsOnceNobodyIsConnected) {
    start();
    EXPECT_THAT(get("/get-connect-info"), StartsWith("HTTP/1.1 200 OK\r\n"));
    std::this_thread::sleep_for(2s);
    const int turns = m_loop.turns();
    std::this_thread::sleep_for(1s);
    EXPECT_EQ(m_loop.turns(), turns);
}

}  // namespace
