// Real connections over loopback, and the guard on its thread.
#include "common/http_guard/http_guard.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <future>

#include "common/http_guard/thread_clock.h"

namespace nuvio {
namespace {

using namespace std::chrono_literals;

constexpr auto kNoHurry = 1h;

class HttpGuardTest : public testing::Test {
  protected:
    // Both ends of a connection to the server.
    struct Connection {
        UniqueFd server;
        UniqueFd peer;
        SocketNumber number = 0;
    };

    HttpGuardTest() : m_listener(socket(AF_INET, SOCK_STREAM, 0)) {
        m_address.sin_family = AF_INET;
        m_address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t size = sizeof m_address;
        EXPECT_EQ(bind(m_listener.get(), name(), size), 0);
        EXPECT_EQ(listen(m_listener.get(), 20), 0);
        EXPECT_EQ(getsockname(m_listener.get(), name(), &size), 0);
    }

    sockaddr* name() { return reinterpret_cast<sockaddr*>(&m_address); }

    std::unique_ptr<HttpGuard> guard(HttpGuard::Settings settings) {
        return std::make_unique<HttpGuard>(ntohs(m_address.sin_port), std::move(settings),
                                           std::make_unique<ThreadClock>());
    }

    Connection connect_to(HttpGuard& guard) {
        Connection made;
        made.peer = UniqueFd(socket(AF_INET, SOCK_STREAM, 0));
        EXPECT_EQ(connect(made.peer.get(), name(), sizeof m_address), 0);
        sockaddr_in from{};
        socklen_t size = sizeof from;
        made.server = UniqueFd(accept(m_listener.get(), reinterpret_cast<sockaddr*>(&from), &size));
        made.number = guard.find("127.0.0.1", ntohs(from.sin_port));
        EXPECT_NE(made.number, 0);
        return made;
    }

    // Waits until the server finds the end of the connection's stream.
    static void wait_for_end(const Connection& connection) {
        char byte = 0;
        EXPECT_EQ(recv(connection.server.get(), &byte, 1, 0), 0);
    }
    static bool is_open(int server) {
        char byte = 0;
        return recv(server, &byte, 1, MSG_DONTWAIT) == -1 && errno == EAGAIN;
    }

    const UniqueFd m_listener;
    sockaddr_in m_address{};
};

TEST_F(HttpGuardTest, NeverCutsTheConnectionThatGotTheNumberOfAnother) {
    const auto guarded = guard({kNoHurry, 100, kNoHurry, {}});
    Connection first = connect_to(*guarded);
    guarded->set_deadline(first.number, 300ms);
    const Connection other = connect_to(*guarded);
    guarded->clear_deadline(other.number);
    const Connection later = connect_to(*guarded);
    guarded->set_deadline(later.number, 600ms);
    // The first is over; its descriptor is the other's from now on.
    ASSERT_EQ(dup2(other.server.get(), first.server.get()), first.server.get());
    wait_for_end(later);
    guarded->cut(first.number);
    EXPECT_TRUE(is_open(first.server.get()));
    guarded->cut(other.number);
    EXPECT_FALSE(is_open(first.server.get()));
}

TEST_F(HttpGuardTest, AConnectionHasThePatienceUntilItsRequestHasComeAndACrowdHasLess) {
    std::promise<unsigned> cut;
    const auto guarded = guard({kNoHurry, 3, 1ms, [&](unsigned count, std::chrono::milliseconds) {
                                    cut.set_value(count);
                                }});
    const Connection with_request = connect_to(*guarded);
    guarded->clear_deadline(with_request.number);
    std::vector<Connection> silent;
    silent.push_back(connect_to(*guarded));
    silent.push_back(connect_to(*guarded));
    const Connection late = connect_to(*guarded);
    guarded->set_deadline(late.number, 600ms);
    guarded->announce();
    wait_for_end(late);  // some looks later
    EXPECT_TRUE(is_open(silent.front().server.get())) << "two are no crowd";
    silent.push_back(connect_to(*guarded));
    guarded->announce();
    EXPECT_EQ(cut.get_future().get(), 3U);
    for (const Connection& each : silent) {
        wait_for_end(each);
        EXPECT_EQ(send(each.server.get(), "x", 1, MSG_NOSIGNAL), 1) << "can still be answered";
    }
    EXPECT_TRUE(is_open(with_request.server.get()));
}

}  // namespace
}  // namespace nuvio
