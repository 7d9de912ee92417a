// NuvioConnect, which binds the SDK core to the device, for the bridge's own files.
#pragma once

#include <uv.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <optional>
#include <stop_token>
#include <string>
#include <string_view>
#include <vector>

#include "advertising/avahi_advertiser.h"
#include "bridge/fair_mutex.h"
#include "bridge/loop_call.h"
#include "bridge/track_info.h"
#include "common/released_by.h"
#include "device_info/device_info.h"
#include "local_config/http_server.h"
#include "media/audio_renderer.h"
#include "sdk/nuvio_connect.h"
#include "startup/nuvio_ss_listener.h"

namespace android {

// One per process, made and destroyed by bridge.cpp.
//
// Creation    empty on any thread; initDeviceInfo on the loop's thread makes everything else. What
//             can't be made ends the initialisation: all is released and every command fails.
// Destruction on the loop's thread, after the command thread has been joined; or, when the
//             initialisation failed and the loop has ended, on the thread that stops the bridge.
//
// Threads     The loop's thread runs the modules, the SDK's delegates and the host hooks. The
//             command thread runs handleNuvioPlaybackEvents. Others only post.
//
// Locks       s_queueMutex is the turn to use the queue: the command thread holds it for a whole
//             batch, SDK calls and waits included, and every other thread's post takes it first, so
//             such a post waits for the end of the batch and joins the next one: turns are taken in
//             the order in which they were asked for. It also guards the process's pointer to the
//             bridge.
//             s_entriesMutex guards the queue's entries and is held for a few lines at a time. The
//             loop's posts (and the command thread's own, should a service call back in place) take
//             only this one: audio never waits for a batch. A batch is what was queued when it
//             began, so the loop's posts also belong to the next one.
//             Order: NetworkState::mutex, s_queueMutex, then s_entriesMutex or LoopCall's mutex.
//             Below these are only locks that nothing is called under: of the threads' record, the
//             listener's instance, the SDK and the platform.
//
// Asking the loop
//             The renderer belongs to the loop's thread. For the playing track the command thread
//             asks the loop through m_loopCall and waits, s_queueMutex held; the loop takes a copy
//             of metadata, format and duration in one go, so they are of one and the same source.
//             This can't deadlock, because the loop's thread never waits for s_queueMutex.
//
// Stopping    A stop request on the command thread's token ends each of its waits: for commands,
//             the delays, the question to the loop.
class NuvioConnect {
  public:
    NuvioConnect();
    ~NuvioConnect();
    NuvioConnect(const NuvioConnect&) = delete;
    NuvioConnect& operator=(const NuvioConnect&) = delete;

    void setDeviceInfo(const std::vector<std::string>& info) { m_deviceInfo = info; }
    // Logs what fails; never throws.
    void initDeviceInfo(uv_loop_t* loop);

    // Any thread; one that is not the bridge's own holds s_queueMutex.
    void pushEvent(const std::string& command);
    // Body of the command thread, until a stop is asked for.
    void handleNuvioPlaybackEvents(const std::stop_token& stop);

    // The host hooks' part. Loop's thread.
    void reportPlaybackPosition(uint64_t position_ms);
    void postVolumeStatus();
    void postPlaybackStatus(int status);

    static FairMutex s_queueMutex;

  private:
    using Action = nuv_error (NuvioConnect::*)();
    struct ArgumentCommand;

    // Owns what the initialisation makes. The fields below borrow from it.
    struct Teardown {
        uv_loop_t* loop = nullptr;
        std::unique_ptr<device_info, nuvio::ReleasedBy<device_info_free>> deviceInfo;
        std::unique_ptr<audio_renderer, nuvio::ReleasedBy<audio_renderer_free>> renderer;
        std::unique_ptr<http_server, nuvio::ReleasedBy<http_server_free>> httpServer;
        std::unique_ptr<avahi_advertiser, nuvio::ReleasedBy<avahi_advertiser_free>> advertiser;
        uv_async_t* wakeUp = nullptr;
        std::unique_ptr<nuv_connect, nuvio::ReleasedBy<nuv_connect_free>> core;
    };

    // ---- Life: initialisation.cpp
    void parseDeviceInfo();
    bool createModules();  // each step logs its failure and returns false
    bool createDeviceInfo();
    bool createAudioRenderer();
    bool createHttpServer();
    bool createAdvertiser();
    bool createNuvioConnect();
    nuv_connect_config makeConfig() const;
    void installSdkLog();
    void onInitialized();
    void releaseAll();  // any subset of the objects
    static void handleException(const std::string& message);
    static void on_event_loop(uv_async_t* handle);

    // ---- Queue, command thread: command_queue.cpp
    bool waitForEvents();  // false: stop
    void processBatch();
    void processEvent();
    size_t queueSize();
    std::string popEvent();
    void finishBatch();
    // False when a stop cut the wait short.
    bool waitUnlessStopped(std::chrono::milliseconds duration) const;

    // ---- Commands, command thread: commands.cpp
    // The command's action, its argument stored; null for one that is unknown or malformed.
    Action parseEvent(const std::string& command);
    static Action findCommand(std::string_view command);
    bool takeSeekPosition(const std::string& argument);
    bool takeVolume(const std::string& argument);
    bool takeDeviceName(const std::string& argument);
    template <auto Control, auto... Arguments>
    nuv_error control() {
        return Control(m_core, Arguments...);
    }
    nuv_error setVolume();
    nuv_error seek();
    nuv_error setDeviceName();
    nuv_error switchSource();
    nuv_error disconnectSource();
    nuv_error standBy();

    // ---- Status, command thread: status_reporting.cpp
    struct PlayingTrack {
        std::string title;
        std::string artist;
        std::string album;
        std::string albumArtUrl;
        nuv_audio_format format;
        uint64_t durationMs;
    };
    nuv_error handleMuteState();
    nuv_error handleVolumeStatus();
    nuv_error handleShuffleRepeat();
    nuv_error handlePlaybackStatus();
    void updateTrackInfo(int status);
    void showPlayingTrack();
    void handleStopped();
    std::optional<PlayingTrack> waitForPlayingTrack();
    bool waitForMetadata();  // false: a newer change is queued, or stop
    std::optional<PlayingTrack> fetchPlayingTrack();
    std::optional<PlayingTrack> copyPlayingTrack() const;  // loop's thread
    void fillTrackInfo(const PlayingTrack& track);
    void resetMetadata();
    bool isPlayingOrPaused() const;

    static std::mutex s_entriesMutex;
    static std::condition_variable_any s_queueCondition;  // with s_entriesMutex

    std::vector<std::string> m_deviceInfo;
    nuv_connect* m_core = nullptr;
    audio_renderer* m_renderer = nullptr;
    sp<NuvioSSListener> m_listener;
    TrackInfo currTrackInfo;                   // command thread
    std::string m_prevTitle;                   // command thread: title last sent to the UI
    std::atomic<int> m_iActiveStatus{0};       // last playback status other than stopped
    bool m_beventReady = false;                // s_entriesMutex
    std::string m_currentEvent;                // command thread
    std::deque<std::string> m_eventQueue;      // s_entriesMutex
    std::atomic<int> m_iPlaybackStatus{0};     // nuv_playback_state, latest of the renderer
    std::atomic<bool> m_bdeviceVolume{false};  // the SDK has reported a volume
    uint16_t m_httpPort = 0;
    std::string m_appId;
    std::string m_appSecret;
    std::string m_deviceName;
    std::string m_manufacturer;
    std::string m_model;
    std::string m_serialNumber;
    std::string m_outputDevice;
    std::string m_volumeControlDevice;
    std::string m_volumeControlElement;
    std::string m_logLevel;
    device_info* m_deviceInfoHandle = nullptr;
    http_server* m_httpServer = nullptr;
    avahi_advertiser* m_advertiser = nullptr;
    // Arguments of the latest command of their kind; command thread.
    std::string m_newDeviceName;
    int m_iNuvioVolume = 0;
    uint32_t m_seekPosition = 0;  // ms

    bool m_sourceSwitched = false;  // command thread: another source took the output, nothing
                                    // played since
    std::stop_token m_stop;         // command thread
    std::unique_ptr<LoopCall> m_loopCall;
    Teardown m_teardown;
};

// The process's bridge. Null when there is none, on the loop's thread also once that has destroyed
// it. On the bridge's own threads without a lock; elsewhere with NuvioConnect::s_queueMutex held.
NuvioConnect* bridgeInstance();

}  // namespace android
