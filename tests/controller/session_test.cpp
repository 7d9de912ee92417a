// What devices and browsers send: a queue in parts, positions by another clock, ranges, hostile
// JSON.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <array>
#include <ctime>

#include "common/unique_fd.h"
#include "controller/command_line/arguments.h"
#include "controller/device/http_client.h"
#include "controller/discovery/announced.h"
#include "controller/session/alarm_store.h"
#include "controller/session/device_state.h"
#include "controller/session/house_state.h"
#include "controller/session/taken.h"
#include "controller/session/tracks.h"
#include "controller/web/byte_range.h"

namespace nuvio::controller {
namespace {

using Clock = DeviceState::Clock;
using std::chrono::milliseconds;

class DeviceStateTest : public testing::Test {
  protected:
    bool say(const std::string& text, int64_t device_ms = 0, int64_t lag_ms = 0) {
        return m_state.apply(parse_json(text).get(), m_start + milliseconds(device_ms + lag_ms),
                             1'000'000 + device_ms + lag_ms);
    }
    // The device's clock is an hour ahead.
    bool say_position(int64_t position, int64_t device_ms, int64_t lag_ms, int seeks = 0) {
        return say(R"({"type":"state","playback":"playing","item":7,"position_ms":)" +
                       std::to_string(position) + R"(,"taken_ms":)" +
                       std::to_string(4'600'000 + device_ms) + R"(,"seeks":)" +
                       std::to_string(seeks) + "}",
                   device_ms, lag_ms);
    }
    int64_t position_at(int64_t ms) const {
        return m_state.position_ms(m_start + milliseconds(ms));
    }
    std::string items(int first, int count) {
        std::string text = R"({"type":"queue","revision":2,"length":5,"first":)" +
                           std::to_string(first) + R"(,"items":[)";
        for (int i = first; i < first + count; ++i) {
            text += (i > first ? R"(,{"item":)" : R"({"item":)") + std::to_string(10 + i) +
                    R"(,"url":"http://here/content/)" + std::to_string(i) +
                    R"(.flac","title":"T","cover":"http://here/cover/3"})";
        }
        return text + "]}";
    }

    const Clock::time_point m_start = Clock::now();
    DeviceState m_state{"http://here"};
};

TEST_F(DeviceStateTest, a_position_is_right_whatever_the_clocks_and_the_network_do) {
    ASSERT_TRUE(say(R"({"type":"track","item":7})"));
    ASSERT_TRUE(say_position(1'000, 0, 20));
    EXPECT_EQ(position_at(20), 1'000);
    EXPECT_EQ(position_at(520), 1'500);
    ASSERT_TRUE(say_position(2'000, 1'000, 320));  // 300 ms later than it might have come
    EXPECT_EQ(position_at(1'320), 2'300);
    ASSERT_TRUE(say(R"({"type":"state","playback":"paused","position_ms":2500})", 2'000, 0));
    EXPECT_EQ(position_at(9'000), 2'500);
}

TEST_F(DeviceStateTest, a_position_told_twice_stands_still_but_where_the_track_began_again) {
    ASSERT_TRUE(say(R"({"type":"track","item":7})"));
    ASSERT_TRUE(say_position(0, 0, 0));
    ASSERT_TRUE(say_position(0, 4'000, 0, 1));
    EXPECT_EQ(position_at(5'000), 1'000);
    ASSERT_TRUE(say(R"({"type":"track","item":8})", 9'000));
    ASSERT_TRUE(say_position(0, 9'000, 0, 1));
    EXPECT_EQ(position_at(9'500), 500);
    ASSERT_TRUE(say_position(0, 13'000, 0, 1));
    EXPECT_FALSE(m_state.advances());
}

TEST_F(DeviceStateTest, a_queue_comes_in_any_parts_and_a_new_revision_replaces_it) {
    ASSERT_TRUE(say(items(2, 2)));
    EXPECT_EQ(m_state.missing_place(), 0);
    ASSERT_TRUE(say(items(0, 2)));
    EXPECT_EQ(m_state.missing_place(), 4);
    ASSERT_TRUE(say(items(4, 1)));
    EXPECT_EQ(m_state.missing_place(), std::nullopt);
    EXPECT_EQ(m_state.find(12)->cover, "cover/3");
    EXPECT_EQ(track_id_of(m_state.find(12)->url), 2);
    ASSERT_TRUE(say(R"({"type":"state","playback":"stopped","item":13})"));
    EXPECT_EQ(m_state.item_after_current(), 14);
    ASSERT_TRUE(say(R"({"type":"queue","revision":3,"length":2,"first":0,"items":[
        {"item":98,"url":"http://away/content/2.flac","cover":"http://away/cover/3"},
        {"item":99,"cover":"http://here/cover/33333333333333333333"}]})"));
    EXPECT_EQ(m_state.find(12), nullptr);
    EXPECT_EQ(m_state.find(98)->cover + m_state.find(99)->cover, "");
    EXPECT_EQ(track_id_of(m_state.find(98)->url), 0);
    EXPECT_EQ(m_state.missing_place(), std::nullopt);
}

// A clear that reached 10 and 11 of 10 to 14, but not 13, and then putting back that reached 10.
TEST_F(DeviceStateTest, what_was_taken_away_or_put_back_in_part_comes_back_once) {
    ASSERT_TRUE(say(items(0, 5)));
    const auto is_meant = [](const QueueItem& item) { return item.item != 12; };
    Taken taken = taken_of(m_state, is_meant, m_start).value();
    const auto missing = [&](const std::string& queue) {
        EXPECT_TRUE(say(queue));
        std::string text;
        for (const Taken::Run& run : missing_of(m_state, taken)) {
            for (const QueueItem& item : run.items) {
                text += std::to_string(item.item) + " ";
            }
            text += "before " + std::to_string(run.before.value_or(-1)) + "; ";
        }
        return text;
    };
    EXPECT_EQ(missing(R"({"type":"queue","revision":3,"length":2,"first":0,"items":[
        {"item":12},{"item":13}]})"),
              "10 11 before 12; 14 before -1; ");
    EXPECT_EQ(missing(R"({"type":"queue","revision":4,"length":3,"first":0,"items":[
        {"item":15,"url":"http://here/content/0.flac"},{"item":12},{"item":13}]})"),
              "11 before 12; 14 before -1; ");
    EXPECT_EQ(missing(R"({"type":"queue","revision":5,"length":5,"first":0,"items":[
        {"item":15,"url":"http://here/content/0.flac"},
        {"item":16,"url":"http://here/content/1.flac"},{"item":12},{"item":13},
        {"item":17,"url":"http://here/content/4.flac"}]})"),
              "");
}

TEST_F(DeviceStateTest, one_that_gets_no_further_is_not_said_to_play) {
    const auto is_said = [this](bool is_asked = false) {
        Device device;
        device.owner = Owner::us;
        device.state = m_state;
        Known known = device.known();
        known.is_linked = true;
        known.is_asked = is_asked;
        return std::string(name_of(condition_of(known)));
    };
    ASSERT_TRUE(say(R"({"type":"state","playback":"playing","item":7,"position_ms":0})"));
    EXPECT_EQ(is_said(true), "opening");
    EXPECT_EQ(position_at(5'000), 0) << "nothing is heard yet";
    ASSERT_TRUE(say(R"({"type":"track","item":7})"));
    EXPECT_EQ(is_said(true), "asked") << "it may be what was heard before";
    EXPECT_EQ(is_said(), "playing");
    ASSERT_TRUE(say_position(1'000, 1'000, 0));
    ASSERT_TRUE(say_position(1'000, 1'500, 0));
    EXPECT_EQ(is_said(), "playing");
    ASSERT_TRUE(say_position(1'000, 11'000, 0));
    EXPECT_EQ(is_said(), "silent");
    EXPECT_EQ(position_at(15'000), 1'000);
    ASSERT_TRUE(say_position(1'200, 12'000, 0));
    EXPECT_EQ(is_said(), "playing");
    m_state.freeze(m_start + milliseconds(12'300));
    EXPECT_EQ(position_at(20'000), 1'500);
}

TEST(ConditionTest, a_device_is_never_said_to_be_what_it_may_not_be) {
    constexpr Known kOurs{.is_linked = true, .is_present = true, .owner = Owner::us};
    constexpr Known kApart{.is_present = true, .reach = Reach::reached, .owner = Owner::us};
    const auto with = [](Known known, auto... members) {
        (members(known), ...);
        return std::string(name_of(condition_of(known)));
    };
    const auto plays = [](Known& known) { known.playback = Playback::playing; };
    const auto asked = [](Known& known) { known.is_asked = true; };
    const auto failed = [](Known& known) { known.reach = Reach::failed; };
    const auto nobodys = [](Known& known) { known.owner = Owner::nobody; };
    EXPECT_EQ(with(kOurs), "stopped");
    EXPECT_EQ(with(kOurs, plays, failed), "opening") << "its channel tells, whatever HTTP does";
    EXPECT_EQ(with(kApart, plays), "silent");
    EXPECT_EQ(with(kApart, plays, failed), "gone");
    EXPECT_EQ(with(kApart, plays, [](Known& known) { known.has_gone_silent = true; }), "gone");
    EXPECT_EQ(with(kApart, nobodys), "free");
    EXPECT_EQ(with(kApart, nobodys, asked), "asked");
    EXPECT_EQ(with(kApart, asked, [](Known& known) { known.is_present = false; }), "gone");
    EXPECT_EQ(with(Known{.is_present = true}), "asking");
}

// The device has found none, and nobody who asked for the track has said one.
TEST_F(DeviceStateTest, a_track_without_a_title_is_called_the_same_wherever_it_is_shown) {
    ASSERT_TRUE(say(R"({"type":"queue","revision":1,"length":1,"first":0,"items":[
        {"item":98,"url":"http://away/a"}]})"));
    ASSERT_TRUE(say(R"({"type":"state","playback":"playing","item":98})"));
    ASSERT_TRUE(say(R"({"type":"track","item":98})"));
    ASSERT_TRUE(say(R"({"type":"error","item":98,"reason":"gone"})"));
    const JsonPtr shown = new_object();
    m_state.describe(shown.get(), m_start);
    EXPECT_EQ(text_member(member(shown.get(), "track"), "title"), "http://away/a");
    EXPECT_EQ(m_state.problem(), "http://away/a: gone");
    EXPECT_THAT(print_json(m_state.describe_queue().get()),
                testing::HasSubstr(R"("title":"http://away/a")"));
}

TEST_F(DeviceStateTest, whatever_a_device_sends_is_bounded) {
    EXPECT_FALSE(say(R"({"type":"state","playback":"<b>"})"));
    EXPECT_TRUE(say(R"({"type":"state","playback":"playing","volume":1e99,"position_ms":1e15,
                        "taken_ms":-9007199254740992})"));
    EXPECT_GE(position_at(1'000), 0);
    const std::string long_text(2'100, 'x');
    for (int64_t first = 0; first < 6'000; first += 10) {
        std::string text = R"({"type":"queue","revision":9,"length":30000,"first":)" +
                           std::to_string(first) + R"(,"items":[)";
        for (int i = 0; i < 10; ++i) {
            text += std::string(i > 0 ? "," : "") + R"({"item":1,"url":")" + long_text + "\"}";
        }
        ASSERT_TRUE(say(text + "]}"));
    }
    EXPECT_LT(print_json(m_state.describe_queue().get()).size(), size_t{12} << 20U);
    EXPECT_EQ(m_state.missing_place(), std::nullopt) << "no more is asked for";
}

TEST(AnnouncedTest, an_announcement_leads_requests_to_devices_alone) {
    for (const char* path : {"", "x", "/a?b=", "/a#", "/a b", "/%2e", "/@", "/\r\n"}) {
        EXPECT_EQ(path_taken(path), "/") << path;
    }
    EXPECT_EQ(path_taken("/a/~b-1._"), "/a/~b-1._");
    for (const char* address : {"0.0.0.0", "0.1.2.3", "224.0.0.251", "255.255.255.255",
                                "::", "ff02::fb", "::ffff:224.0.0.1", "x", "::2"}) {
        EXPECT_FALSE(is_address_taken(address, true)) << address;
    }
    for (const char* address : {"127.0.0.1", "127.9.9.9", "::1", "::ffff:127.0.0.1"}) {
        EXPECT_TRUE(is_address_taken(address, true)) << address;
        EXPECT_FALSE(is_address_taken(address, false)) << address;
    }
    for (const char* address : {"192.168.1.5", "fd00::5", "fe80::1", "::ffff:10.0.0.1"}) {
        EXPECT_TRUE(is_address_taken(address, false)) << address;
    }
}

TEST(HttpClientTest, a_device_is_asked_at_the_first_address_that_takes_the_connection) {
    const UniqueFd listener(socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK, 0));
    sockaddr_in address{};
    socklen_t size = sizeof address;
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK + 1);
    auto* const any = reinterpret_cast<sockaddr*>(&address);
    ASSERT_EQ(bind(listener.get(), any, size) + listen(listener.get(), 8), 0);
    ASSERT_EQ(getsockname(listener.get(), any, &size), 0);
    FoundDevice device;
    device.path = "/";
    device.port = ntohs(address.sin_port);
    device.addresses = {"127.0.0.1", "127.0.0.2", "127.0.0.2"};
    EXPECT_EQ(ask_device(device, "GET", "x", {}, milliseconds(200)).status, 0);
    EXPECT_TRUE(UniqueFd(accept(listener.get(), nullptr, nullptr)));
    EXPECT_FALSE(UniqueFd(accept(listener.get(), nullptr, nullptr)));
}

TEST(JsonTest, what_is_nested_deeply_or_no_text_is_refused_and_what_goes_out_is_utf8) {
    EXPECT_EQ(parse_json(std::string(100'000, '[')), nullptr);
    EXPECT_EQ(parse_json(R"({"a":"\\","b":)" + std::string(40, '[') + std::string(40, ']') + "}"),
              nullptr);
    EXPECT_EQ(parse_json("{} x"), nullptr);
    EXPECT_NE(parse_json(R"({"a":"[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[","b":"\\\""})"),
              nullptr);
    JsonPtr object = new_object();
    add(object.get(), "t", std::string_view("a\xFF\0b", 4));
    EXPECT_EQ(print_json(object.get()),
              "{\"t\":\"a\xEF\xBF\xBD\xEF\xBF\xBD"
              "b\"}");
    EXPECT_EQ(number_member(parse_json(R"({"n":1.5})").get(), "n"), std::nullopt);
}

TEST(TracksTest, long_lists_go_in_messages_that_a_device_takes) {
    Track track;
    track.below = "a/b.flac";
    track.title = std::string(300, 't');
    const std::vector<Playable> items(1'200, Playable{{}, {}, track});
    int count = 0;
    for (const JsonPtr& list : track_lists(told(items), "http://192.168.1.5:8090")) {
        EXPECT_LT(print_json(list.get()).size(), size_t{60} << 10U);
        EXPECT_LE(cJSON_GetArraySize(list.get()), 500);
        count += cJSON_GetArraySize(list.get());
    }
    EXPECT_EQ(count, 1'200);
    track.id = 7;
    track.section = {1'500'000, 2'000'000};
    const std::string list = playlist_of(told({{{}, {}, track}}), "http://here");
    EXPECT_THAT(list, testing::HasSubstr("\"http://here/content/7.flac#t=1.500000,2.000000\""));
    EXPECT_EQ(track_id_of("content/7.flac#t=1.500000,2.000000"), 7);
}

int64_t at(const char* text) {
    tm local{};
    EXPECT_NE(strptime(text, "%Y-%m-%d %H:%M:%S", &local), nullptr);
    local.tm_isdst = -1;
    return mktime(&local);
}

// "Sun 29. 03:30 CEST"
std::string next(const char* after, const char* time, unsigned days = 0) {
    const time_t due = *next_due({*to_minute(time), days}, at(after));
    tm local{};
    std::array<char, 40> text{};
    strftime(text.data(), text.size(), "%a %d. %H:%M %Z", localtime_r(&due, &local));
    return text.data();
}

TEST(AlarmTest, one_is_due_by_the_local_clock_whatever_the_calendar_does) {
    setenv("TZ", "Europe/Berlin", 1);
    EXPECT_EQ(next("2026-11-27 06:59:59", "07:00"), "Fri 27. 07:00 CET");
    EXPECT_EQ(next("2026-11-27 07:00:00", "7:00"), "Sat 28. 07:00 CET") << "not twice";
    EXPECT_EQ(next("2026-11-27 07:00:00", "07:00", 1U << 4U), "Fri 04. 07:00 CET");
    EXPECT_EQ(next("2026-12-31 23:59:59", "00:00", 0b1000001), "Sun 03. 00:00 CET");
    EXPECT_EQ(next("2026-03-28 12:00:00", "02:30"), "Sun 29. 03:30 CEST") << "there is no 02:30";
    EXPECT_EQ(next("2026-10-24 12:00:00", "02:30"), "Sun 25. 02:30 CEST") << "the first of two";
    EXPECT_EQ(next("2026-10-25 02:30:00", "02:30"), "Mon 26. 02:30 CET");
    EXPECT_EQ(next("2026-10-24 12:00:00", "07:00"), "Sun 25. 07:00 CET");
    setenv("TZ", "Europe/Dublin", 1);  // its winter is what is called summer time
    EXPECT_EQ(next("2026-03-28 12:00:00", "01:30"), "Sun 29. 02:30 IST");
    for (const char* text : {"24:00", "07:60", "7", "07:0", "-7:00", "107:00", "07:000", ""}) {
        EXPECT_FALSE(to_minute(text)) << text;
    }
}

TEST(AlarmTest, none_is_lost_doubled_or_late_when_the_clock_is_set_or_the_controller_away) {
    Alarm daily{1, "d", "", {420, 127}, "w", "", {}, true, at("2026-11-26 12:00:00"), ""};
    Alarm once = daily;
    once.time.days = 0;
    EXPECT_EQ(due_of(&daily, at("2026-11-27 07:09:00")), at("2026-11-27 07:00:00"));
    note_rung(&daily, at("2026-11-27 07:00:00"), "");
    EXPECT_EQ(due_of(&daily, at("2026-11-27 06:58:00")), at("2026-11-28 07:00:00"));
    EXPECT_EQ(due_of(&daily, at("2026-11-27 05:00:00")), at("2026-11-27 07:00:00"))
        << "the clock was wrong when it rang";
    EXPECT_EQ(due_of(&daily, at("2026-12-24 09:00:00")), at("2026-12-25 07:00:00"));
    EXPECT_THAT(daily.failure, testing::StartsWith("07:00 was missed"));
    EXPECT_EQ(due_of(&once, at("2026-11-27 09:00:00")), std::nullopt);
    EXPECT_FALSE(once.is_on);
}

TEST(ByteRangeTest, of_an_empty_file_there_is_no_part) {
    ByteRange range;
    EXPECT_EQ(parse_range("bytes=-1", 0, &range), RangeKind::beyond);
}

TEST(ArgumentsTest, times_amounts_and_what_to_play_are_read_as_people_write_them) {
    EXPECT_EQ(to_time("1:30")->number, 90'000);
    EXPECT_EQ(to_time("1:02:03")->number, 3'723'000);
    EXPECT_EQ(to_time("-10")->number, -10'000);
    EXPECT_TRUE(to_time("+10")->is_relative);
    for (const char* text : {"", ":", "1:", "x", "1:-3", "99999999999", "1.5"}) {
        EXPECT_FALSE(to_time(text)) << text;
    }
    EXPECT_FALSE(to_amount("+-5x"));
    EXPECT_EQ(to_what("/srv/a/../b"), "/srv/b");
    EXPECT_EQ(time_text(3'723'000), "1:02:03");
}

}  // namespace
}  // namespace nuvio::controller
