// One eventful life of the service, between a platform, an SDK and a card in this program's hands.
// Standard output, which is to be the file FOLDER/output, gets what the service logs and calls, and
// a line for each step.
//
//   golden_life FOLDER
#include <sys/socket.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <memory>
#include <sstream>
#include <thread>
#include <vector>

#include "bridge/bridge.h"
#include "fakes/echo.h"
#include "fakes/fake_platform.h"
#include "fakes/fake_sdk.h"
#include "fakes/on_loop.h"
#include "faults/scripted_sdk.h"
#include "free_port.h"
#include "platform/Environment.h"
#include "startup/nuvio_ss_listener.h"
#include "startup/service.h"
#include "tools/simcard/simcard.h"
#include "utility/log_delegate.h"

using namespace android;

namespace {

using namespace std::chrono_literals;

constexpr std::chrono::seconds kPatience{60};

simcard::Settings settings_of_the_card() {
    simcard::Settings settings;
    settings.speed = 0;  // until somebody moves it
    settings.default_buffer_ms = 100;
    settings.patient = true;
    settings.record = false;
    return settings;
}

class Life {
  public:
    explicit Life(const std::string& folder)
        : m_output(folder + "/output"),
          m_card(simcard::Card::create(folder + "/card", settings_of_the_card())) {
        m_card.use_in_this_process();
        fakes::g_echoes = true;
    }

    simcard::Card& card() { return m_card; }

    // What follows is set off by this step, and over before the next one.
    void step(const char* name) {
        settle();
        std::printf("== %s\n", name);
        std::fflush(stdout);
    }
    // Returns when the output has the text so many times since the step began.
    void await(const std::string& text, int times = 1) const {
        const auto deadline = std::chrono::steady_clock::now() + kPatience;
        while (count(text) < times) {
            if (std::chrono::steady_clock::now() > deadline) {
                std::fprintf(stderr, "never came: %s\n", text.c_str());
                std::_Exit(EXIT_FAILURE);
            }
            std::this_thread::sleep_for(5ms);
        }
    }
    void on_loop(std::function<void()> function) { m_loop.run(std::move(function)); }
    // Returns when the loop and the command thread are through with what there was to do.
    void settle() {
        for (int round = 0; m_runs && round < 2; ++round) {
            on_loop([] {});
            const std::string mark = "MARK" + std::to_string(++m_marks) + ".";
            postEventTo_Nuvio(mark);
            await("Unknown Event " + mark);
        }
    }

    void run() {
        m_main = std::thread([this] { m_status = runService(); });
    }
    void now_runs() { m_runs = true; }
    int end() {
        m_runs = false;
        m_loop.close();
        fake_platform::end_process();
        m_main.join();
        return m_status;
    }

  private:
    int count(const std::string& text) const {
        std::ostringstream output;
        output << std::ifstream(m_output).rdbuf();
        const std::string all = output.str();
        int times = 0;
        for (size_t at = all.rfind("\n== "); (at = all.find(text, at + 1)) != all.npos;) {
            ++times;
        }
        return times;
    }

    const std::string m_output;
    simcard::Card m_card;
    fakes::OnLoop m_loop;
    std::thread m_main;
    bool m_runs = false;
    int m_status = -1;
    int m_marks = 0;
};

// A controller's request; returns when the server has closed.
void ask(uint16_t port, const std::string& head, const std::string& body = "") {
    const int fd = socket(AF_INET, SOCK_STREAM, 0);
    const sockaddr_in address = loopback(port);
    if (connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0) {
        std::perror("golden_life: connect");
    }
    const std::string bytes =
        head + " HTTP/1.1\r\nHost: device\r\nContent-Length: " + std::to_string(body.size()) +
        "\r\n\r\n" + body;
    send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL);
    std::array<char, 1024> room;
    std::string answer;
    for (ssize_t count = 0; (count = recv(fd, room.data(), room.size(), 0)) > 0;) {
        answer.append(room.data(), static_cast<size_t>(count));
    }
    close(fd);
    fakes::echo("answer", answer.substr(0, answer.find('\r')));
    fakes::echo("answer", answer.substr(answer.find("\r\n\r\n") + 4));
}

void write_message(int id, const std::string& text) {
    fake_platform::state()->messages[id] = text;
    fake_platform::notify_message(id);
}

void fail(const std::vector<std::string>& calls, nuv_error error) {
    for (const std::string& call : calls) {
        fake_sdk::set_result(call, error);
    }
}

int live(Life& life, uint16_t port) {
    life.step("a start that waits for the network");
    life.run();
    life.await("-> platform network_status 2");
    for (const auto& [iface, status] : {std::pair(3, 1), {1, 2}, {1, 0}, {2, 1}}) {
        fake_platform::notify_network(iface, status);
    }
    life.await("Nuvio Connect has been initialized");
    life.now_runs();
    nuv_connect* const core = fake_sdk::core();
    const nuv_connect_config config = fake_sdk::config();
    const nuv_media_delegate& media = config.media_delegate;
    const nuv_advertising_delegate& advertising = config.advertising_delegate;
    const nuv_local_config_server_delegate& server = config.local_config_server_delegate;
    std::unique_ptr<ScriptedSdk> sdk;
    const auto play = [&](const std::vector<Clip>& tracks) {
        sdk.reset();
        sdk = std::make_unique<ScriptedSdk>(uv_default_loop(),
                                            static_cast<audio_renderer*>(media.context));
        sdk->play(tracks);
    };
    fake_sdk::Values values;
    const auto become = [&](nuv_playback_state state) {
        values.playback_state = state;
        fake_sdk::set_values(values);
        media.playback_state_changed(core, state, media.context);
    };

    life.step("the SDK's services");
    life.on_loop([&] {
        server.start(core, server.context);
        server.start(core, server.context);
        advertising.start(core, "Kitchen", "_nuvio-connect._tcp", advertising.context);
        const auto log = fake_sdk::log_delegate().callback;
        for (const char* category :
             {"NetworkManager", "HttpClient", "CloudClient", "CurlWS", "HttpDownloader",
              "AudioStreamManager", "UrlAudioSource", "AudioDecoder", "ContentFetcher"}) {
            log(LOG_LEVEL_DEBUG, category, "chatter");
            log(LOG_LEVEL_INFO, category, "news");
        }
        log(LOG_LEVEL_TRACE, "httpclient", "another one");
        log(7, "HttpClient", "worse than all");
    });

    life.step("a controller");
    ask(port, "GET /get-display-info");
    ask(port, "PUT /get-connect-info");
    ask(port, "GET /get-connect-info");
    const std::string token = R"({"endpoint":"file:///a","jwt":"t","exp":11})";
    const std::string session = R"({"session_id":"s","jwt_api":)" + token + R"(,"jwt_nconnect":)" +
                                token + R"(,"become_active":true})";
    ask(port, "POST /connect-to-nconnect", session);
    ask(port, "POST /connect-to-nconnect", "{}");
    fail({"get_session_id", "connect"}, NUV_ERROR_INTERNAL);
    ask(port, "GET /get-connect-info");
    ask(port, "POST /connect-to-nconnect", session);

    life.step("a session");
    life.on_loop([&] {
        play({{kHiRes, 10'000}});
        become(NUV_PLAYBACK_STATE_PLAYING);
        media.playback_actions_availability_changed(core, true, media.context);
        media.maximum_audio_quality_changed(core, NUV_AUDIO_QUALITY_CD, media.context);
        const nuv_stream_metadata texts = values.metadata;
        const auto& streams = config.audio_stream_delegate;
        streams.metadata(core, 1, &texts, streams.context);
    });
    life.await("-> platform ui_update");

    life.step("volume and mute, from the SDK and from the mixer");
    postEventTo_Nuvio("VOLUME_STATUS");
    life.settle();
    life.on_loop([&] {
        media.volume_changed(core, 20, media.context);
        media.mute_state_changed(core, true, media.context);
    });
    life.await("Mute state changed: true");
    life.card().set_volume(255);
    life.await("Volume changed: 100");

    life.step("keys, and words that are none");
    const sp<NuvioSSListener> listener = NuvioSSListener::getInstance();
    fail({"next_track", "get_volume"}, NUV_ERROR_INVALID_STATE);
    std::istringstream words(
        "PAUSE,RESUME,STOP,NEXT,PREV,MUTE,UNMUTE,MUTE:UNMUTE,SHUFFLE:ON,SHUFFLE:OFF,REPEAT:OFF,"
        "REPEAT:ONE,REPEAT:ALL,SEEK:-1,SEEK,VOLUME: 7abc,VOLUME_STATUS,XDISCONNECTSOURCEX,pause,"
        "MUTE:,VOLUME:,VOLUME:loud,SEEK:99999999999,DEVICENAME:VOLUME:x,");
    for (std::string word; std::getline(words, word, ',');) {
        postEventTo_Nuvio(word);
    }
    listener->OnSourceEvent("VOLUME:150");
    listener->OnVolumeChangeEvent("55");
    listener->OnSourceEvent(nullptr);
    listener->OnVolumeChangeEvent(nullptr);
    life.settle();
    fail({"next_track", "get_volume"}, NUV_ERROR_OK);

    life.step("a pause, and a seek");
    life.on_loop([&] {
        media.pause_playback(core, media.context);
        become(NUV_PLAYBACK_STATE_PAUSED);
    });
    life.await("Audio playback is paused");
    life.on_loop([&] {
        media.resume_playback(core, media.context);
        sdk->seek_ahead(500);
    });
    life.await("Seek has been completed");

    life.step("a storm of modes");
    life.on_loop([&] {
        for (const bool shuffle : {true, false, true}) {
            media.playback_controls_changed(core, NUV_LOOP_MODE_ALL, shuffle, media.context);
        }
    });
    life.await("-> platform ui_update");

    life.step("a card that fails");
    life.card().inject({simcard::Op::write, EIO, 0, simcard::Fault::kForever});
    life.card().play(1'000);
    life.await("-> sdk notify_playback_error");
    life.on_loop([&] { become(NUV_PLAYBACK_STATE_STOPPED); });
    life.card().clear_faults();
    for (const simcard::Op op :
         {simcard::Op::open, simcard::Op::hw_params, simcard::Op::poll_descriptor_count,
          simcard::Op::poll_descriptors}) {
        life.card().inject({op, ENODEV});
        life.on_loop([&] { play({{kCd, 100}}); });
    }

    life.step("an SDK that takes no notification");
    const std::vector<std::string> notifications = {
        "notify_playback_paused",  "notify_playback_resumed",
        "notify_playback_stopped", "notify_playback_error",
        "resume_audio_delivery",   "set_volume",
        "get_playback_state",      "deactivate_and_disconnect_renderer"};
    life.on_loop([&] {
        fail(notifications, NUV_ERROR_INTERNAL);
        play({{kCd, 100}});
        media.pause_playback(core, media.context);
        media.resume_playback(core, media.context);
        become(NUV_PLAYBACK_STATE_PLAYING);
        media.stop_playback(core, media.context);
        fail({"notify_playback_initiated"}, NUV_ERROR_INTERNAL);
        config.audio_stream_delegate.dispose(core, 1, config.audio_stream_delegate.context);
        play({{kCd, 100}});
    });
    life.settle();
    life.on_loop([&] {
        fail(notifications, NUV_ERROR_OK);
        fail({"notify_playback_initiated"}, NUV_ERROR_OK);
        become(NUV_PLAYBACK_STATE_STOPPED);
    });

    life.step("a track, one behind it, one of another format, and the end");
    life.card().set_speed(4);
    life.on_loop([&] { play({{kCd, 1'500}, {kCd, 1'500}, {kHiRes, 1'500}}); });
    life.await("Nothing else to play");
    life.await("Audio stream has been disposed of", 3);

    life.step("a rename, one without a network, and a shutdown request");
    write_message(KORA_DEVICE_NAME, "Living:Room STANDBYON");
    life.settle();
    write_message(KORA_DEVICE_NAME, "Living:Room STANDBYON");
    fake_platform::notify_network(2, 0);
    write_message(KORA_DEVICE_NAME, "Unheard");
    fake_platform::notify_network(1, 1);
    write_message(KORA_SHUTDOWN_REQUEST, "1");
    write_message(KORA_VOLUME, "40");

    life.step("another source, standby, and an output that is refused");
    listener->OnSourceSwitchEvent();
    listener->OnSourceEvent("STANDBYON");
    {
        const fake_platform::Locked platform = fake_platform::state();
        platform->grants_output = false;
        platform->messages[KORA_CURRENT_SOURCE] = "none";
    }
    life.on_loop([&] { play({{kCd, 100}}); });
    postEventTo_Nuvio("VOLUME_STATUS");

    life.step("the end");
    life.on_loop([&] {
        sdk.reset();
        advertising.stop(core, advertising.context);
        server.stop(core, server.context);
        server.stop(core, server.context);
    });
    return life.end();
}

}  // namespace

int main(int argc, char** argv) {
    const std::string folder = argc > 1 ? argv[1] : ".";
    // Avahi cannot be had.
    setenv("DBUS_SYSTEM_BUS_ADDRESS", ("unix:path=" + folder + "/no-bus").c_str(), 1);
    const uint16_t port = free_port();
    {
        const fake_platform::Locked platform = fake_platform::state();
        platform->wired = false;
        platform->items[KFeatureNuvioConnectHttpPort] = std::to_string(port);
        platform->items[KFeatureNuvioConnectLog] = "1";
        platform->items[kOutputFS] = "44100,192000";
        platform->messages = {{KORA_VOLUME, "35"}, {KORA_MUTE, "MUTE"}, {KORA_CURRENT_SOURCE, "7"}};
    }
    Life life(folder);
    const int status = live(life, port);
    NuvioSSListener::releaseInstance();
    return status;
}
