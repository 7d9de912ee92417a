// The services in process: notifications, messages, source switch, what plays now, threads.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "device/controls.h"
#include "device/message_store.h"
#include "device/network_monitor.h"
#include "device/notification_pool.h"
#include "device/now_playing.h"
#include "device/source_switch.h"

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
            std::promise<void> done;
            std::future<void> reached = done.get_future();
            pool.post(channel, [&done] { done.set_value(); });
            ASSERT_EQ(reached.wait_for(kPatience), std::future_status::ready);
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
    Settings settings;
    Controls controls{settings, messages, now_playing, source_switch, network};
    const SourceSwitch::Listener listener = new Listener(record);
};

}  // namespace

TEST_F(HostServices, NotificationsWaitForThePoolAndKeepTheirOrder) {
    const sp<IKoraAlerts> alerts = new Alerts(record);
    messages.add_listener(alerts, {90, 63, 37});
    messages.write(90, "a");
    messages.write(90, "a");  // the same again: no news
    messages.write(64, "1");  // not asked for
    messages.write(63, "MUTE");
    messages.write(90, "b");
    controls.request_shutdown();
    controls.request_shutdown();  // what waits already is told once
    EXPECT_THAT(record.lines(), IsEmpty());
    settle();
    EXPECT_THAT(record.lines(), ElementsAre("90", "63", "37"));
}

TEST_F(HostServices, ABlockedListenerHoldsUpNoOtherChannel) {
    pool.start();
    std::promise<void> open;
    std::shared_future<void> gate = open.get_future().share();
    std::promise<void> blocked;
    pool.post(Channel::source_switch, [gate, &blocked] {
        blocked.set_value();
        gate.wait();
    });
    EXPECT_EQ(blocked.get_future().wait_for(kPatience), std::future_status::ready);
    std::promise<void> heard;
    std::future<void> other = heard.get_future();
    pool.post(Channel::messages, [&heard] { heard.set_value(); });
    EXPECT_EQ(other.wait_for(kPatience), std::future_status::ready);

    // The end does not wait for it either, and begins nothing any more.
    pool.post(Channel::source_switch, [this] { record.add("too late"); });
    EXPECT_FALSE(pool.stop(milliseconds(1)));
    pool.post(Channel::messages, [this] { record.add("too late"); });
    open.set_value();
    pool.join();
    EXPECT_THAT(record.lines(), IsEmpty());
}

TEST_F(HostServices, OfAFloodOfNotificationsTheLastOnesCount) {
    std::vector<int> delivered;
    for (int i = 0; i < 5000; ++i) {
        pool.post(Channel::network, [&delivered, i] { delivered.push_back(i); });
    }
    std::promise<void> end;
    pool.post(Channel::network, [&end] { end.set_value(); });
    pool.start();
    EXPECT_EQ(end.get_future().wait_for(kPatience), std::future_status::ready);
    EXPECT_EQ(delivered.size(), 63U);
    EXPECT_EQ(delivered.back(), 4999);
}

TEST_F(HostServices, WhatMakesNoSenseIsRefused) {
    source_switch.request(listener, 31);
    for (const auto& [id, text] :
         std::vector<std::pair<int, std::string>>{{-1, "x"},
                                                  {65536, "x"},
                                                  {1, std::string(kMaxMessageBytes + 1, 'x')},
                                                  {64, "loud"},
                                                  {50, "31"},  // the service's own
                                                  {63, "mute"},
                                                  {90, "a VOLUME:90 room"},
                                                  {90, " blank at the front"}}) {
        EXPECT_FALSE(controls.write_message(id, text)) << id;
    }
    for (const int source : {31, 0, 256}) {
        EXPECT_FALSE(controls.take_output(source)) << source;
    }
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

class WhatPlays : public testing::Test {
  protected:
    WhatPlays() {
        now_playing.set_observer([this](uint32_t changes) { seen.push_back(changes); });
    }
    void show(const std::string& title, int repeat = 0) {
        AMessage info(0, 0);
        info.setString("trackName", title.data(), title.size());
        info.setString("coverArt", "defaultArt.jpg", 14);
        info.setInt32("totalTime", 10000);
        info.setInt32("repeat", repeat);
        now_playing.show(info);
    }
    std::vector<uint32_t> changes() { return std::exchange(seen, {}); }

    NowPlaying now_playing;
    std::vector<uint32_t> seen;
    const NowPlaying::Clock::time_point t0 = NowPlaying::Clock::now();
};

TEST_F(WhatPlays, ThePositionRunsOnBetweenReportsButNotAhead) {
    now_playing.set_status(PLAY_STATE_PLAYING, t0);
    now_playing.set_position(5000, t0);
    EXPECT_EQ(now_playing.view(t0 + milliseconds(400)).position_ms, 5400);
    EXPECT_EQ(now_playing.view(t0 + milliseconds(90000)).position_ms, 6500);
    now_playing.set_status(PLAY_STATE_PAUSED, t0 + milliseconds(600));
    EXPECT_EQ(now_playing.view(t0 + milliseconds(90000)).position_ms, 5600);
    now_playing.set_status(PLAY_STATE_STOPPED, t0);
    EXPECT_EQ(now_playing.view(t0).position_ms, 0);
}

TEST_F(WhatPlays, TheSameTrackSentAgainKeepsItsNumber) {
    show("a");
    EXPECT_THAT(changes(), ElementsAre(kPlayerTrack));
    const uint32_t number = now_playing.view().track->number;
    show("a", 2);
    EXPECT_THAT(changes(), ElementsAre(kPlayerModes));
    EXPECT_EQ(now_playing.view().track->number, number);
    EXPECT_EQ(now_playing.view().track->art_url, "");
    show("b", 2);
    EXPECT_NE(now_playing.view().track->number, number);
    now_playing.clear();
    EXPECT_FALSE(now_playing.view().track.has_value());
    EXPECT_EQ(now_playing.view().modes, Modes());
}
