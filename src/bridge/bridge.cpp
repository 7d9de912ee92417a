// The process's one bridge, and the life of its two threads.
#include "bridge/bridge.h"

#include <syslog.h>
#include <unistd.h>

#include <atomic>
#include <condition_variable>
#include <csignal>
#include <memory>
#include <mutex>
#include <system_error>
#include <thread>
#include <utility>

#include "bridge/bridge_private.h"
#include "bridge/loop_watchdog.h"
#include "utility/check.h"
#include "utility/uv_utilities.h"

namespace android {
namespace {

// Written with NuvioConnect::s_queueMutex held, and read with it; on the loop's thread, the only
// one to write it while the loop runs, it is read without.
std::shared_ptr<NuvioConnect> g_instance;

thread_local bool t_ofTheBridge = false;  // the loop's thread and the command thread

// What stopNuvioConnect needs to know of the threads.
enum class LoopState { Absent, Starting, Running };
struct Threads {
    std::mutex mutex;
    std::condition_variable changed;
    // Guarded by mutex:
    LoopState state = LoopState::Absent;
    std::jthread command;
    bool stopAsked = false;     // before there was a command thread to ask
    uv_async_t* end = nullptr;  // ends the loop; null when there is none
};
Threads g_threads;

NuvioConnect& makeInstance() {
    if (g_instance == nullptr) {
        g_instance = std::make_shared<NuvioConnect>();
    }
    return *g_instance;
}

void destroyInstance() {
    std::shared_ptr<NuvioConnect> doomed;
    {
        const std::scoped_lock lock(NuvioConnect::s_queueMutex);
        doomed = std::move(g_instance);
    }
}

// The instance that the command thread is to work for; an empty one where no settings came.
NuvioConnect& initInstance(uv_loop_t* loop) {
    if (NuvioConnect* const bridge = bridgeInstance()) {
        bridge->initDeviceInfo(loop);
        return *bridge;
    }
    const std::scoped_lock lock(NuvioConnect::s_queueMutex);
    return makeInstance();
}

std::atomic<bool> g_failed{false};

// A service that hears nobody is worse than none, which a service manager starts again.
void endAsFailed(const char* thread, const std::system_error& error) {
    syslog(LOG_ERR, "NuvioConnect: %s thread not started: %s", thread, error.what());
    g_failed = true;
    kill(getpid(), SIGTERM);
}

// No thread when the system has none left.
std::jthread startCommandThread(NuvioConnect* bridge) {
    try {
        return std::jthread([bridge](const std::stop_token& stop) {
            t_ofTheBridge = true;
            bridge->handleNuvioPlaybackEvents(stop);
        });
    } catch (const std::system_error& error) {
        endAsFailed("command", error);
        return {};
    }
}

void onEndLoop(uv_async_t* handle) {
    bool* const asked =
        static_cast<bool*>(uv_handle_get_data(reinterpret_cast<uv_handle_t*>(handle)));
    *asked = true;
    uv_stop(handle->loop);
}

// True when the end was asked for, false when the loop had nothing to do.
bool runLoop(uv_loop_t* loop, NuvioConnect& bridge) {
    bool asked = false;
    uv_async_t* const end = uv_async_new(loop, onEndLoop, &asked);
    uv_unref(reinterpret_cast<uv_handle_t*>(end));
    {
        const std::scoped_lock lock(g_threads.mutex);
        g_threads.command = startCommandThread(&bridge);
        if (g_threads.stopAsked) {
            g_threads.command.request_stop();
        }
        g_threads.end = end;
        g_threads.state = LoopState::Running;
    }
    g_threads.changed.notify_all();
    const LoopWatchdog watchdog(loop);
    while (!asked && uv_loop_alive(loop) != 0) {
        uv_run(loop, UV_RUN_DEFAULT);
    }

    const std::scoped_lock lock(g_threads.mutex);
    uv_async_free(std::exchange(g_threads.end, nullptr));
    return asked;
}

// Runs every close callback that is still to come.
void drainLoop(uv_loop_t* loop) {
    while (uv_run(loop, UV_RUN_DEFAULT) != 0) {
    }
    const int result = uv_loop_close(loop);
    if (result != 0) {
        syslog(LOG_ERR, "NuvioConnect: loop not closed: %s", uv_strerror(result));
    }
}

}  // namespace

NuvioConnect* bridgeInstance() {
    return g_instance.get();
}

void setDeviceInfo(const std::vector<std::string>& info) {
    const std::scoped_lock lock(NuvioConnect::s_queueMutex);
    makeInstance().setDeviceInfo(info);
}

void startNuvioConnectThread() {
    // The new thread waits for the mutex before it says that it runs.
    const std::scoped_lock lock(g_threads.mutex);
    try {
        std::thread(nuvioConnectThreadFunction).detach();
        g_threads.state = LoopState::Starting;
    } catch (const std::system_error& error) {
        endAsFailed("bridge", error);
    }
}

bool hasNuvioConnectFailed() {
    return g_failed;
}

void nuvioConnectThreadFunction() {
    syslog(LOG_INFO, "NuvioConnect: Nuvio_Connect threadUV loop is running");
    t_ofTheBridge = true;
    uv_loop_t* const loop = uv_default_loop();
    NUV_CHECK(loop != NULL);
    NuvioConnect& bridge = initInstance(loop);
    if (runLoop(loop, bridge)) {
        destroyInstance();
    }
    drainLoop(loop);
    t_ofTheBridge = false;
    const std::scoped_lock lock(g_threads.mutex);
    g_threads.state = LoopState::Absent;
    g_threads.changed.notify_all();
}

void postEventTo_Nuvio(const std::string& command) {
    syslog(LOG_ERR, "NuvioConnect: postEventTo_Nuvio: Received event = %s\n", command.c_str());
    std::unique_lock turn(NuvioConnect::s_queueMutex, std::defer_lock);
    if (!t_ofTheBridge) {
        turn.lock();
    }
    NuvioConnect* const bridge = bridgeInstance();
    if (bridge == nullptr) {
        syslog(LOG_ERR, "NuvioConnect: postEventTo_Nuvio: No bridge, dropped event = %s\n",
               command.c_str());
        return;
    }
    bridge->pushEvent(command);
}

void requestStopNuvioConnect() {
    const std::scoped_lock lock(g_threads.mutex);
    g_threads.stopAsked = true;
    g_threads.command.request_stop();
}

void stopNuvioConnect() {
    std::jthread command;
    {
        std::unique_lock lock(g_threads.mutex);
        g_threads.changed.wait(lock, [] { return g_threads.state != LoopState::Starting; });
        command = std::move(g_threads.command);
    }
    if (command.joinable()) {
        command.request_stop();
        command.join();
    }
    {
        std::unique_lock lock(g_threads.mutex);
        if (g_threads.end != nullptr) {
            uv_async_send(g_threads.end);
        }
        g_threads.changed.wait(lock, [] { return g_threads.state != LoopState::Running; });
        g_threads.stopAsked = false;
    }
    destroyInstance();  // still there when the loop had nothing to do, or never ran
}

}  // namespace android
