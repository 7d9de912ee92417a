// The source-switch listener between the platform and the bridge.
#include "bridge/service_fixture.h"
#include "bridge/track_info.h"
#include "platform/Kora.h"

using namespace android;
using namespace service_test;
using testing::ElementsAre;

namespace {

// Without a bridge: what is posted shows as dropped.
class Listener : public Service {
  protected:
    Lines posted() {
        Lines commands;
        const std::string mark = "No bridge, dropped event = ";
        for (const std::string& line : captured_log::lines_with(mark)) {
            const size_t begin = line.find(mark) + mark.size();
            commands.push_back(line.substr(begin, line.find('\n') - begin));
        }
        return commands;
    }

    sp<NuvioSSListener> m_listener = NuvioSSListener::getInstance();
};

TEST_F(Listener, OnlyAGrantedOutputBringsTheDevicesVolumeAndMuteState) {
    {
        const fake_platform::Locked platform = fake_platform::state();
        platform->messages = {{KORA_VOLUME, "35"}, {KORA_MUTE, "MUTE"}, {KORA_CURRENT_SOURCE, "7"}};
        platform->grants_output = false;
    }
    EXPECT_FALSE(NuvioSSListener::setSource());
    EXPECT_TRUE(posted().empty());
    m_listener->reportVolume(40);  // a refusal tells the current source, too

    fake_platform::state()->grants_output = true;
    fake_platform::state()->messages[KORA_CURRENT_SOURCE] = "none";
    EXPECT_TRUE(NuvioSSListener::setSource());
    EXPECT_THAT(posted(), ElementsAre("VOLUME:35", "MUTE:MUTE"));
    m_listener->reportVolume(41);
    EXPECT_THAT(fake_platform::state()->calls,
                ElementsAre("play_my_source 31", "app_volume 40", "play_my_source 31"));
}

TEST_F(Listener, ReportsReachThePlatformInItsOwnNumbers) {
    for (const int state : {1, 2, 0, 5}) {
        m_listener->reportPlayState(state);
    }
    m_listener->reportPlaybackPosition(5000000000);
    m_listener->reportMuteState(7);
    m_listener->reportMuteState(0);
    m_listener->DropSource();
    EXPECT_THAT(
        fake_platform::state()->calls,
        ElementsAre("player_state 0", "write 51 0", "player_state 2", "write 51 2",
                    "player_state 1", "write 51 1", "write 49 5000000000", "write 63 MUTE",
                    "write 63 UNMUTE", "player_state 1", "playback_stopped", "disconnect_source"));
}

TEST_F(Listener, NotificationsBecomeCommands) {
    m_listener->OnSourceEvent("NEXT");
    m_listener->OnSourceEvent(nullptr);
    m_listener->OnVolumeChangeEvent("55");
    m_listener->OnVolumeChangeEvent(nullptr);
    m_listener->OnSourceSwitchEvent();
    EXPECT_THAT(posted(), ElementsAre("NEXT", "VOLUME:55", "ONSOURCESWITCH"));
    EXPECT_THAT(fake_platform::state()->calls, ElementsAre("playback_stopped", "player_state 1"));
}

}  // namespace
