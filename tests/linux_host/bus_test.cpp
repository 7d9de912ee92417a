// The device on a message bus of the test's own, driven by ordinary clients: playerctl, busctl and
// the panel script. linux_host_service plays the part of the service.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "linux_host/process.h"
#include "linux_host/temp_dir.h"

using testing::HasSubstr;

namespace {

constexpr char kHost[] = "org.nuvioconnect.Host1 /org/nuvioconnect/Host1 org.nuvioconnect.Host1 ";
constexpr char kPlayer[] =
    "org.mpris.MediaPlayer2.nuvio_connect /org/mpris/MediaPlayer2 org.mpris.MediaPlayer2.Player ";

class Bus : public testing::Test {
  protected:
    ~Bus() override {
        // The service first, so that it leaves in an orderly way.
        m_service.reset();
        m_daemon.reset();
    }

    std::string socket() const { return dir.path() + "/run/deep/bus"; }
    std::string address() const { return "unix:path=" + socket(); }

    void start_bus() {
        std::filesystem::create_directories(dir.path() + "/run/deep");
        m_daemon = std::make_unique<Process>(
            std::vector<std::string>{"dbus-daemon", "--session", "--nofork", "--nopidfile",
                                     "--print-address=1", "--address=" + address()},
            std::vector<std::string>{});
        ASSERT_THAT(m_daemon->next_line(), HasSubstr(socket()));
    }
    void stop_bus() {
        m_daemon->signal(SIGTERM);
        m_daemon->wait();
        m_daemon.reset();
    }

    void start_service(const std::string& more_settings = "") {
        const std::string settings = dir.write(
            "settings.conf",
            "feature.nuvio_connect = 1\nhost.allow_loopback = 1\nhost.friendly_name = Radio\n" +
                more_settings);
        m_service = std::make_unique<Process>(
            std::vector<std::string>{NUVIO_HOST_SERVICE},
            std::vector<std::string>{"DBUS_SESSION_BUS_ADDRESS=" + address(),
                                     "DBUS_SYSTEM_BUS_ADDRESS=unix:path=" + dir.path() + "/none",
                                     "NUVIO_SETTINGS=" + settings,
                                     "NUVIO_STATE_DIR=" + dir.path() + "/state"});
        ASSERT_EQ(m_service->next_line(), "ready 1");
    }
    // Ends it the way a system manager does; true when it went well.
    bool stop_service() {
        m_service->signal(SIGTERM);
        const bool ended = m_service->skip_to("ended");
        m_service->close_input();
        return m_service->wait() == 0 && ended;
    }
    void start() {
        start_bus();
        start_service();
        ASSERT_TRUE(on_bus());
    }
    // A session plays the track "One" of 200 s by "Band".
    void play() {
        start();
        tell("source");
        ASSERT_EQ(heard(), "granted");
        tell("state 0");
        tell("track One|Band|Album|200000|/art/one 1.png|0|0");
        ASSERT_TRUE(eventually([&] { return client("playerctl metadata title") == "One"; }));
    }

    void tell(const std::string& order) const { m_service->say(order); }
    // The next line from the service, alerts of messages that are only logged left out.
    std::string heard() const {
        std::string line = m_service->next_line();
        while (line == "alert 64" || line == "alert 63" || line == "alert 51") {
            line = m_service->next_line();
        }
        return line;
    }
    // Nothing more has been heard: an answer to a question of ours comes next.
    void expect_silence() const {
        tell("read 9999");
        EXPECT_EQ(heard(), "9999=");
    }

    Result call(const std::string& command) const {
        return run("DBUS_SESSION_BUS_ADDRESS=" + address() + " " + command);
    }
    std::string client(const std::string& command) const { return call(command).output; }
    Result panel(const std::string& arguments) const {
        return call(NUVIO_SOURCE_DIR "/tools/panel/panel " + arguments);
    }
    bool on_bus() const {
        return eventually([this] {
            return client("busctl --user --no-pager get-property " + std::string(kPlayer) +
                          "CanControl") == "b true" &&
                   client("busctl --user --no-pager get-property " + std::string(kHost) +
                          "Muted") != "";
        });
    }
    // How often the host's threads have been put to sleep so far; a sanitizer's own thread does not
    // count.
    long sleeps() const {
        long sum = 0;
        const std::string tasks = "/proc/" + std::to_string(m_service->pid()) + "/task";
        for (const auto& task : std::filesystem::directory_iterator(tasks)) {
            std::ifstream status(task.path() / "status");
            std::string line;
            std::getline(status, line);
            const bool is_main = task.path().filename() == std::to_string(m_service->pid());
            if (!is_main && line.find("\thost-") == std::string::npos) {
                continue;
            }
            while (std::getline(status, line)) {
                if (line.starts_with("voluntary_ctxt_switches:")) {
                    sum += std::stol(line.substr(line.find(':') + 1));
                }
            }
        }
        return sum;
    }
    // Sleeps through a time in which a poll of any kind would show.
    void expect_idle() const {
        const long before = sleeps();
        std::this_thread::sleep_for(std::chrono::milliseconds(2500));
        EXPECT_EQ(sleeps(), before);
    }

    const TempDir dir;
    std::unique_ptr<Process> m_daemon;
    std::unique_ptr<Process> m_service;
};

}  // namespace

TEST_F(Bus, PlayersShowWhatTheServiceReports) {
    play();
    Process follower({"playerctl", "metadata", "--follow", "--format", "{{title}}/{{status}}"},
                     {"DBUS_SESSION_BUS_ADDRESS=" + address()});
    EXPECT_TRUE(follower.skip_to("One/Playing"));
    EXPECT_EQ(client("playerctl metadata --format "
                     "'{{artist}}|{{album}}|{{mpris:length}}|{{mpris:artUrl}}'"),
              "Band|Album|200000000|file:///art/one%201.png");
    tell("track One|Band|Album|200000|/art/one 1.png|1|2");
    EXPECT_TRUE(eventually([&] { return client("playerctl shuffle") == "On"; }));
    EXPECT_EQ(client("playerctl loop"), "Playlist");

    tell("volume 40");
    EXPECT_TRUE(eventually([&] { return client("playerctl volume") == "0.400000"; }));
    tell("state 2");
    tell("position 61250");
    EXPECT_TRUE(eventually([&] { return client("playerctl position") == "61.250000"; }));
    EXPECT_TRUE(follower.skip_to("One/Paused"));

    tell("track \xFF||||||");  // what no bus would carry
    EXPECT_TRUE(eventually([&] { return client("playerctl metadata title") == "\xEF\xBF\xBD"; }));
    tell("clear");
    tell("drop");
    EXPECT_TRUE(eventually([&] {
        return client("busctl --user get-property " + std::string(kPlayer) + "Metadata") ==
                   "a{sv} 0" &&
               client("playerctl status") == "Stopped";
    }));
    EXPECT_NE(call("playerctl next").status, 0);  // nobody to do it
}

TEST_F(Bus, PlayerCallsBecomeCommandsInOrder) {
    play();
    tell("state 2");
    tell("position 10000");
    ASSERT_TRUE(eventually([&] { return client("playerctl position") == "10.000000"; }));
    const std::vector<std::pair<std::string, std::string>> calls = {
        {"playerctl play", "event RESUME"},
        {"playerctl pause", "event PAUSE"},
        {"playerctl stop", "event STOP"},
        {"playerctl next", "event NEXT"},
        {"playerctl previous", "event PREV"},
        {"playerctl position 30.5", "event SEEK:30500"},
        {"playerctl position 10+", "event SEEK:40500"},  // from where it will be
        {"playerctl position 100-", "event SEEK:0"},
        {"playerctl position 300+", "event NEXT"},  // past the end
        {"playerctl volume 0.55", "volume 55"},
        {"playerctl volume 7", "volume 100"},
        {"playerctl shuffle on", "event SHUFFLE:ON"},
        {"playerctl shuffle off", "event SHUFFLE:OFF"},
        {"playerctl loop none", "event REPEAT:OFF"},
        {"playerctl loop track", "event REPEAT:ONE"},
        {"playerctl loop playlist", "event REPEAT:ALL"},
        {"playerctl play-pause", "event RESUME"},  // paused now
        {"playerctl play-pause", "event PAUSE"},   // although it has not reported
        {"busctl --user set-property " + std::string(kPlayer) + "Rate d 0", "event PAUSE"},
    };
    for (const auto& [command, expected] : calls) {
        EXPECT_EQ(call(command).status, 0) << command;
        EXPECT_EQ(heard(), expected) << command;
    }
    EXPECT_EQ(client("playerctl volume"), "1.000000");
}

TEST_F(Bus, PlayerCallsThatMakeNoSenseAreRefusedOrIgnored) {
    play();
    const std::string call_player = "busctl --user call " + std::string(kPlayer);
    const std::string set_position = call_player + "SetPosition ox ";
    const std::string set_player = "busctl --user set-property " + std::string(kPlayer);
    const std::string track = client("playerctl metadata mpris:trackid | tr -d \"'\"");
    for (const std::string& ignored :
         {std::string("/org/nuvioconnect/track/99 1000000"), std::string("/ 0"),
          track + " 200000001", "-- " + track + " -1"}) {
        EXPECT_EQ(call(set_position + ignored).status, 0) << ignored;
    }
    EXPECT_THAT(client(call_player + "OpenUri s file:///x"), HasSubstr("controller"));
    EXPECT_THAT(client(set_player + "LoopStatus s Sometimes"), HasSubstr("None, Track"));
    EXPECT_NE(call(set_player + "Volume d nan").status, 0);
    EXPECT_NE(call(set_player + "Volume s loud").status, 0);
    EXPECT_EQ(call(call_player + "Seek x 9223372036854775807").status, 0);
    EXPECT_EQ(heard(), "event NEXT");
    EXPECT_EQ(call(call_player + "Seek x -- -9223372036854775808").status, 0);
    EXPECT_EQ(heard(), "event SEEK:0");
    expect_silence();
}

TEST_F(Bus, JumpsOfThePositionAndChangesOfMessagesAreSignalled) {
    play();
    Process monitor({"dbus-monitor", "--session", "type=signal,path=/org/mpris/MediaPlayer2",
                     "type=signal,path=/org/nuvioconnect/Host1"},
                    {"DBUS_SESSION_BUS_ADDRESS=" + address()});
    // Connected before anything happens.
    ASSERT_TRUE(monitor.skip_to("NameAcquired"));
    tell("position 90000");
    EXPECT_TRUE(monitor.skip_to("member=Seeked"));
    EXPECT_THAT(monitor.next_line(), HasSubstr("int64 "));
    // The next line is the next signal's: the position has no other.
    EXPECT_EQ(
        call("busctl --user call " + std::string(kHost) + "WriteMessage is 200 twelve").status, 0);
    EXPECT_THAT(monitor.next_line(), HasSubstr("member=MessageChanged"));
    EXPECT_THAT(monitor.next_line(), HasSubstr("int32 200"));
    EXPECT_THAT(monitor.next_line(), HasSubstr("string \"twelve\""));
}

TEST_F(Bus, ThePanelDoesTheRest) {
    start();
    EXPECT_THAT(panel("standby").output, HasSubstr("No source"));
    EXPECT_EQ(panel("refuse-next").status, 0);
    tell("source");
    EXPECT_EQ(heard(), "refused");
    tell("source");
    EXPECT_EQ(heard(), "granted");
    // What each command comes to in the service.
    const std::vector<std::pair<std::string, std::string>> commands = {
        {"mute", "event MUTE"},      {"standby", "event STANDBYON"},
        {"volume 30", "volume 30"},  {"take-output 4", "switch"},
        {"shutdown", "alert 37"},    {"rename 'Living: Room'", "alert 90"},
        {"network down", "net 1 0"}, {"network up 2", "net 2 1"},
    };
    for (const auto& [command, expected] : commands) {
        EXPECT_EQ(panel(command).status, 0) << command;
        EXPECT_EQ(heard(), expected) << command;
    }
    EXPECT_EQ(panel("read 50").output, "\"4\"");
    EXPECT_EQ(panel("give-back").status, 0);
    EXPECT_EQ(panel("read 50").output, "\"0\"");
    EXPECT_EQ(panel("rename 'Living: Room'").status, 0);  // no news
    EXPECT_EQ(client("busctl --user get-property org.mpris.MediaPlayer2.nuvio_connect "
                     "/org/mpris/MediaPlayer2 org.mpris.MediaPlayer2 Identity"),
              "s \"Living: Room\"");
    tell("network 1");
    EXPECT_EQ(heard(), "network 1 0");
    EXPECT_THAT(panel("status").output, HasSubstr("Wireless        true"));

    EXPECT_THAT(panel("read 9999").output, HasSubstr("no value"));
    for (const char* refused : {"seek 5", "rename ''", "write 70000 x"}) {
        EXPECT_EQ(panel(refused).status, 1) << refused;
    }
    EXPECT_EQ(panel("volume 101").status, 2);
    EXPECT_EQ(panel("frobnicate").status, 2);
    expect_silence();
}

TEST_F(Bus, ABusThatGoesAwayAndComesBackIsPickedUpAgain) {
    play();
    stop_bus();
    tell("position 5000");  // nothing minds
    tell("read 49");
    EXPECT_EQ(heard(), "49=5000");
    start_bus();
    EXPECT_TRUE(on_bus());
    EXPECT_EQ(client("playerctl metadata title"), "One");
    EXPECT_EQ(call("playerctl next").status, 0);
    EXPECT_EQ(heard(), "event NEXT");
}

TEST_F(Bus, ABusThatComesLaterIsFoundAndNothingIsPolledMeanwhile) {
    start_service();  // not even the socket's folder is there
    // Past the few tries after the start.
    std::this_thread::sleep_for(std::chrono::milliseconds(3000));
    expect_idle();
    start_bus();
    ASSERT_TRUE(on_bus());
    std::this_thread::sleep_for(std::chrono::milliseconds(500));
    expect_idle();
    EXPECT_TRUE(stop_service());
}

TEST_F(Bus, ASecondDeviceTakesANameOfItsOwn) {
    start();
    const Process second({NUVIO_HOST_SERVICE}, {"DBUS_SESSION_BUS_ADDRESS=" + address(),
                                                "NUVIO_SETTINGS=" + dir.path() + "/settings.conf",
                                                "NUVIO_STATE_DIR=" + dir.path() + "/second"});
    EXPECT_TRUE(eventually([&] {
        return client("playerctl -l") ==
               "nuvio_connect\nnuvio_connect.instance" + std::to_string(second.pid());
    }));
}

TEST_F(Bus, ThePolicyLetsEverybodyLookAndTheAudioGroupAct) {
    if (::geteuid() != 0) {
        GTEST_SKIP() << "needs other accounts than this one";
    }
    // A bus with the rules of a system bus, whose socket everybody can reach.
    std::filesystem::permissions(dir.path(), std::filesystem::perms(0755));
    std::filesystem::create_directories(dir.path() + "/run/deep");
    const std::string config = dir.write(
        "bus.conf", "<busconfig><type>system</type><auth>EXTERNAL</auth><listen>" + address() +
                        "</listen><policy context='default'><allow user='*'/><deny own='*'/>"
                        "<deny send_type='method_call'/><allow send_type='signal'/>"
                        "<allow send_requested_reply='true' send_type='method_return'/>"
                        "<allow send_requested_reply='true' send_type='error'/>"
                        "<allow receive_type='method_call'/><allow receive_type='method_return'/>"
                        "<allow receive_type='error'/><allow receive_type='signal'/>"
                        "<allow send_destination='org.freedesktop.DBus'/></policy>"
                        "<include>" NUVIO_SOURCE_DIR
                        "/packaging/dbus/nuvio-connect.conf</include>"
                        "</busconfig>");
    m_daemon = std::make_unique<Process>(
        std::vector<std::string>{"dbus-daemon", "--nofork", "--nopidfile", "--print-address=1",
                                 "--config-file=" + config},
        std::vector<std::string>{});
    ASSERT_THAT(m_daemon->next_line(), HasSubstr(socket()));
    start_service("host.bus = " + address() + "\n");
    ASSERT_TRUE(on_bus());
    const std::string look = "busctl --user get-property " + std::string(kPlayer) + "Volume";
    const std::string act = "busctl --user call " + std::string(kHost) + "Rename s Attic";
    const std::string as_nobody = "setpriv --reuid=65534 --regid=65534 --clear-groups ";
    const std::string as_audio = "setpriv --reuid=65534 --regid=65534 --groups=audio ";
    const auto as = [&](const std::string& who, const std::string& command) {
        return run(who + "env DBUS_SESSION_BUS_ADDRESS=" + address() + " " + command);
    };
    EXPECT_EQ(as(as_nobody, look).output, "d 0");
    EXPECT_THAT(as(as_nobody, act).output, HasSubstr("denied"));
    EXPECT_EQ(as(as_audio, act).status, 0);
    EXPECT_EQ(heard(), "alert 90");
}
