// Drives the Avahi poll table by hand on a real libuv loop.
#include "advertising/avahi_libuv_poll.h"

#include <avahi-common/timeval.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <array>
#include <functional>
#include <string>
#include <vector>

#include "loop_fixture.h"

using testing::ElementsAre;
using testing::IsEmpty;

namespace {

class AvahiLibuvPoll : public LoopTest {
  protected:
    struct Watch {
        AvahiLibuvPoll* test;
        std::string name;
        std::function<void(AvahiWatch*)> then = [](AvahiWatch*) {};
    };

    AvahiLibuvPoll() {
        m_poll = avahi_libuv_poll_new(&loop_);
        m_api = avahi_libuv_poll_get(m_poll);
        EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, m_sockets.data()), 0);
    }

    ~AvahiLibuvPoll() override {
        avahi_libuv_poll_free(m_poll);
        uv_run(&loop_, UV_RUN_NOWAIT);
        close(m_sockets[0]);
        close(m_sockets[1]);
    }

    AvahiWatch* new_watch(Watch& watch, int fd, int events) {
        return m_api->watch_new(m_api, fd, static_cast<AvahiWatchEvent>(events), on_watch, &watch);
    }

    static void on_watch(AvahiWatch* watch, int, AvahiWatchEvent events, void* userdata) {
        auto* self = static_cast<Watch*>(userdata);
        self->test->m_fired.push_back(self->name + " " + text_of(events));
        EXPECT_EQ(self->test->m_api->watch_get_events(watch), events);
        self->then(watch);
    }

    static void on_timeout(AvahiTimeout*, void* userdata) {
        auto* self = static_cast<Watch*>(userdata);
        self->test->m_fired.push_back(self->name);
    }

    AvahiTimeout* new_timeout(Watch& context, const timeval* tv) {
        return m_api->timeout_new(m_api, tv, on_timeout, &context);
    }

    static std::string text_of(int events) {
        return std::string((events & AVAHI_WATCH_IN) != 0 ? "in" : "") +
               ((events & AVAHI_WATCH_OUT) != 0 ? "out" : "") +
               ((events & AVAHI_WATCH_ERR) != 0 ? "err" : "");
    }

    // One pass that does not wait; what fired during it.
    std::vector<std::string> pass() {
        m_fired.clear();
        uv_run(&loop_, UV_RUN_NOWAIT);
        return m_fired;
    }

    void send() const { EXPECT_EQ(write(m_sockets[1], "x", 1), 1); }

    avahi_libuv_poll* m_poll;
    const AvahiPoll* m_api;
    std::array<int, 2> m_sockets{};
    std::vector<std::string> m_fired;
};

timeval in_us(AvahiUsec distance) {
    timeval tv{};
    gettimeofday(&tv, nullptr);
    avahi_timeval_add(&tv, distance);
    return tv;
}

TEST_F(AvahiLibuvPoll, TwoWatchesOnOneDescriptorWorkSideBySide) {
    Watch reader{this, "reader"};
    Watch writer{this, "writer"};
    AvahiWatch* in = new_watch(reader, m_sockets[0], AVAHI_WATCH_IN);
    AvahiWatch* out = new_watch(writer, m_sockets[0], AVAHI_WATCH_OUT);
    EXPECT_THAT(pass(), ElementsAre("writer out"));
    send();
    EXPECT_THAT(pass(), testing::UnorderedElementsAre("writer out", "reader in"));

    // Either one goes on without the other, and the descriptor can be watched anew.
    m_api->watch_free(in);
    EXPECT_THAT(pass(), ElementsAre("writer out"));
    in = new_watch(reader, m_sockets[0], AVAHI_WATCH_IN);
    m_api->watch_free(out);
    EXPECT_THAT(pass(), ElementsAre("reader in"));
}

TEST_F(AvahiLibuvPoll, AnErrorOfTheDescriptorIsReportedAndSurvived) {
    std::array<int, 2> ends{};
    ASSERT_EQ(pipe(ends.data()), 0);
    close(ends[0]);  // a pipe without a reader: POLLERR for the writer
    Watch writer{this, "writer", m_api->watch_free};  // in its own callback
    new_watch(writer, ends[1], AVAHI_WATCH_OUT);
    EXPECT_THAT(pass(), ElementsAre("writer err"));
    EXPECT_THAT(pass(), IsEmpty());
    close(ends[1]);

    const int dead = dup(m_sockets[0]);
    close(dead);
    Watch watch{this, "dead"};
    AvahiWatch* record = new_watch(watch, dead, AVAHI_WATCH_IN);
    EXPECT_THAT(m_fired, IsEmpty());
    EXPECT_THAT(pass(), ElementsAre("dead err"));
    EXPECT_THAT(pass(), IsEmpty());
    m_api->watch_update(record, AVAHI_WATCH_OUT);
    EXPECT_EQ(m_api->watch_get_events(record), 0) << "forgotten";
    EXPECT_THAT(pass(), ElementsAre("dead err"));
    m_api->watch_free(record);
}

TEST_F(AvahiLibuvPoll, ADeadlineFiresOnceInWholeMillisecondsAndMovesWithEachUpdate) {
    Watch early{this, "early"};
    Watch late{this, "late"};
    const timeval past{};
    new_timeout(early, &past);
    const timeval soon = in_us(900);  // less than a millisecond: at once
    AvahiTimeout* record = new_timeout(late, &soon);
    EXPECT_THAT(m_fired, IsEmpty());
    EXPECT_THAT(pass(), ElementsAre("early", "late"));
    EXPECT_THAT(pass(), IsEmpty());

    m_api->timeout_update(record, &past);
    m_api->timeout_update(record, nullptr);
    EXPECT_THAT(pass(), IsEmpty());
    const timeval far = in_us(3600LL * 1000 * 1000 + 500);
    m_api->timeout_update(record, &far);
    EXPECT_GT(uv_backend_timeout(&loop_), 3'590'000);
    EXPECT_LE(uv_backend_timeout(&loop_), 3'600'000);
    m_api->timeout_update(record, &soon);
    EXPECT_THAT(pass(), ElementsAre("late"));
}

}  // namespace
