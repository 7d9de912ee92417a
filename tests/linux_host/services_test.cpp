// The services in process: notifications that wait, what is refused, the running position.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <mutex>
#include <semaphore>
#include <string>
#include <vector>

#include "bus/bus_link.h"
#include "common/unique_fd.h"
#include "device/controls.h"
#include "device/message_store.h"
#include "device/network_monitor.h"
#include "device/notification_pool.h"
#include "device/now_playing.h"
#include "device/source_switch.h"
#include "temp_dir.h"

using namespace android;
using namespace nuvio::host;
using std::chrono::milliseconds;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

constexpr std::chrono::seconds kPatience{10};

// Lines from several threads.
class Record {
  public:
    void add(const std::string& line) {
        const std::lock_guard lock(m_mutex);
        m_lines.push_back(line);
    }
    std::vector<std::string> lines() const {
        const std::lock_guard lock(m_mutex);
        return m_lines;
    }

  private:
    mutable std::mutex m_mutex;
    std::vector<std::string> m_lines;
};

class Listener : public BnSourceSwitchListener {
  public:
    explicit Listener(Record& record) : m_record(record) {}
    void OnSourceSwitchEvent() override { m_record.add("switch"); }
    void OnSourceEvent(const char* command) override { m_record.add(command); }
    void OnVolumeChangeEvent(const char* volume) override {
        m_record.add(std::string("volume ") + volume);
    }

  private:
    Record& m_record;
};

class Alerts : public IKoraAlerts {
  public:
    explicit Alerts(Record& record) : m_record(record) {}
    void MessageBoxAlert(uint16_t id, uint16_t) override { m_record.add(std::to_string(id)); }
    void MessageBoxAlert(uint16_t, uint16_t, uint32_t) override { m_record.add("wide"); }

  private:
    Record& m_record;
};

class HostServices : public testing::Test {
  protected:
    // Waits until everything posted so far has been delivered.
    void settle() {
        pool.start();
        for (const Channel channel :
             {Channel::source_switch, Channel::messages, Channel::network}) {
            std::binary_semaphore done{0};
            pool.post(channel, [&done] { done.release(); });
            ASSERT_TRUE(done.try_acquire_for(kPatience));
        }
    }
    std::string message(int id) const {
        std::string text;
        messages.read(id, text);
        return text;
    }

    Record record;
    NotificationPool pool;
    MessageStore messages{pool};
    NowPlaying now_playing;
    SourceSwitch source_switch{pool, messages, now_playing};
    NetworkMonitor network{pool, true};
    Controls controls{messages, now_playing, source_switch, network};
    const SourceSwitch::Listener listener = new Listener(record);
};

}  // namespace

TEST_F(HostServices, WhatWaitsIsToldOnceAndOfAFloodTheLastOnesCount) {
    messages.add_listener(new Alerts(record), {90, 63});
    messages.write(90, "a");
    messages.write(63, "MUTE");
    messages.write(90, "b");
    std::vector<int> flood;
    for (int i = 0; i < 5000; ++i) {
        pool.post(Channel::network, [&flood, i] { flood.push_back(i); });
    }
    settle();
    EXPECT_THAT(record.lines(), ElementsAre("90", "63"));
    EXPECT_LE(flood.size(), 64U);
    EXPECT_EQ(flood.back(), 4999);
}

// A slider that is moved and keys that are hit while the listener is busy.
TEST_F(HostServices, NoFloodTakesTheNewsOfAnotherSourceAway) {
    source_switch.request(listener, 31);
    controls.take_output(3);
    for (int i = 0; i < 100; ++i) {
        controls.set_volume(i);
        source_switch.send_command(std::to_string(i));
    }
    std::binary_semaphore done{0};
    pool.post(Channel::source_switch, [&done] { done.release(); });  // takes a place
    pool.start();
    ASSERT_TRUE(done.try_acquire_for(kPatience));
    const std::vector<std::string> told = record.lines();
    ASSERT_EQ(told.size(), 2U + 63U);
    EXPECT_THAT(std::vector(told.begin(), told.begin() + 3),
                ElementsAre("switch", "volume 99", "37"));
    EXPECT_EQ(told.back(), "99");
}

TEST_F(HostServices, ABlockedListenerHoldsUpNoOtherChannel) {
    pool.start();
    std::binary_semaphore blocked{0};
    std::binary_semaphore open{0};
    std::binary_semaphore heard{0};
    pool.post(Channel::source_switch, [&blocked, &open] {
        blocked.release();
        open.acquire();
    });
    EXPECT_TRUE(blocked.try_acquire_for(kPatience));
    pool.post(Channel::messages, [&heard] { heard.release(); });
    EXPECT_TRUE(heard.try_acquire_for(kPatience));

    // The end does not wait for it either, and begins nothing any more.
    pool.post(Channel::source_switch, [this] { record.add("too late"); });
    EXPECT_FALSE(pool.stop(milliseconds(1)));
    pool.post(Channel::messages, [this] { record.add("too late"); });
    open.release();
    pool.join();
    EXPECT_THAT(record.lines(), IsEmpty());
}

TEST_F(HostServices, WhatMakesNoSenseIsRefused) {
    source_switch.request(listener, 31);
    controls.seek(-1);
    controls.seek(Controls::kMaxSeekMs + 1);
    controls.give_back_output();                  // not another source's
    source_switch.release(new Listener(record));  // not the one that is known
    EXPECT_EQ(message(50), "31");

    EXPECT_TRUE(controls.write_message(64, "45"));
    EXPECT_TRUE(controls.write_message(50, "7"));
    controls.take_output(5);  // nothing left to take from the service
    controls.set_mute(true);  // nor to tell it
    EXPECT_EQ(message(63), "MUTE");
    for (int id = 100; id < 100 + static_cast<int>(kMaxMessages); ++id) {
        messages.write(id, "x");
    }
    EXPECT_FALSE(messages.write(1000, "x")) << "there are enough";
    EXPECT_TRUE(messages.write(100, "an old one still"));
    settle();
    EXPECT_THAT(record.lines(), ElementsAre("volume 45", "switch"));
}

TEST_F(HostServices, ASessionLastsFromItsFirstSoundToTheEndOfItsMusic) {
    const auto is_on = [&] { return now_playing.view().has_session; };
    const auto play = [&] {
        now_playing.set_status(PLAY_STATE_PLAYING);
        now_playing.show(*sp<AMessage>(new AMessage(0, 0)));
        return is_on();
    };
    source_switch.refuse_next_request();
    EXPECT_FALSE(source_switch.request(listener, 31) || play());
    now_playing.set_status(PLAY_STATE_STOPPED);
    source_switch.request(listener, 31);
    EXPECT_FALSE(is_on());
    EXPECT_TRUE(play());
    now_playing.set_status(PLAY_STATE_STOPPED);
    EXPECT_TRUE(is_on()) << "between two tracks";
    now_playing.clear();
    EXPECT_FALSE(is_on()) << "the playlist's end";
    EXPECT_TRUE(play());
    now_playing.clear();
    now_playing.set_status(PLAY_STATE_STOPPED);
    EXPECT_FALSE(is_on()) << "the other way round";
    EXPECT_TRUE(play());
    controls.take_output(3);
    EXPECT_FALSE(is_on());
}

TEST_F(HostServices, ThePositionRunsOnBetweenReportsButNotAhead) {
    const NowPlaying::Clock::time_point t0 = NowPlaying::Clock::now();
    const auto position_at = [&](int ms) {
        return now_playing.view(t0 + milliseconds(ms)).position_ms;
    };
    now_playing.set_status(PLAY_STATE_PLAYING, t0);
    now_playing.set_position(5000, t0);
    EXPECT_EQ(position_at(400), 5400);
    EXPECT_EQ(position_at(90000), 6500);
    now_playing.set_status(PLAY_STATE_PAUSED, t0 + milliseconds(600));
    EXPECT_EQ(position_at(90000), 5600);
    now_playing.set_status(PLAY_STATE_STOPPED, t0);
    EXPECT_EQ(position_at(0), 0);
}

// Whoever is at the socket does not welcome anybody; no file tells when that changes.
TEST(BusLink, AsksAgainWhereItWasRefusedAtOnce) {
    const TempDir folder;
    const std::string path = folder / "bus";
    const nuvio::UniqueFd other(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    ASSERT_EQ(bind(other.get(), reinterpret_cast<sockaddr*>(&address), sizeof address), 0);

    BusLink link({{"unix:path=" + path, path}}, [](sd_bus*) { return 0; });
    link.open();
    std::optional<BusLink::Clock::time_point> due;
    do {  // the first tries follow closely
        std::vector<pollfd> descriptors;
        due.reset();
        link.prepare(descriptors, due);
        ASSERT_TRUE(due);
        const auto left = std::chrono::ceil<milliseconds>(*due - BusLink::Clock::now());
        poll(nullptr, 0, std::min(1000, static_cast<int>(left.count())));
        link.dispatch();
    } while (BusLink::Clock::now() >= *due);
    EXPECT_GT(*due - BusLink::Clock::now(), milliseconds(10000));
}
