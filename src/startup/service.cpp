#include "startup/service.h"

#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <string>

#include "bridge/bridge.h"
#include "bridge/loop_watchdog.h"
#include "common/number.h"
#include "platform/Binder.h"
#include "platform/Environment.h"
#include "startup/nuvio_connect_start.h"
#include "startup/nuvio_ss_listener.h"

namespace {

using namespace android;

constexpr int kStartUpPriority = -16;
constexpr unsigned kShutDownLimitS = 8;  // a service manager's patience is 10 s

bool isEnabled() {
    std::string item;
    GetEnvItemByName(kFeatureNuvioConnect, item);
    return nuvio::leading_number(item) != 0;
}

// False, one line logged, when the platform can't start the thread.
bool startStartUpThread(const sp<NuvioConnectStart>& start) {
    const int32_t result = start->run("NuvioConnectStart", kStartUpPriority, 0);
    if (result != 0) {
        syslog(LOG_ERR, "nuvio-connect: start-up thread not started: %s", std::strerror(-result));
    }
    return result == 0;
}

// One notification may still be waiting for its turn to post, the network state's lock in hand; so
// the bridge's command thread is told first. A bus or a card that never answers can hold the loop's
// thread for ever: then the signal ends the process. It stays armed, as exit handlers are a part of
// the end.
void shutDown(sp<NuvioConnectStart>& start) {
    // The platform may have set one when the end began.
    if (const unsigned left = alarm(kShutDownLimitS); left != 0) {
        alarm(std::min(left, kShutDownLimitS));
    }
    requestStopNuvioConnect();
    start->stopStartUp();
    stopNuvioConnect();
    start.clear();
    NuvioConnectStart::ReleaseInstance();
    NuvioSSListener::releaseInstance();
}

// The signals that end the process wait until the platform is there to take them. Returns what was
// blocked before.
sigset_t holdEndSignals() {
    sigset_t signals;
    sigset_t before;
    sigemptyset(&signals);
    sigaddset(&signals, SIGTERM);
    sigaddset(&signals, SIGINT);
    pthread_sigmask(SIG_BLOCK, &signals, &before);
    return before;
}

}  // namespace

int runService() {
    const sigset_t signalsBefore = holdEndSignals();
    std::signal(SIGPIPE, SIG_IGN);
    if (!isEnabled()) {
        syslog(LOG_ERR, "nuvio-connect: Nuvio Connect is not enabled");
        return 0;
    }
    LoopWatchdog::standDown();
    sp<NuvioConnectStart> start = NuvioConnectStart::GetInstance();
    if (start == nullptr) {
        return -1;
    }
    syslog(LOG_ERR, "nuvio-connect: \n\nMAIN TO START Nuvio START\n\n");
    // A platform that takes them blocks them itself; with any other one they end the process.
    pthread_sigmask(SIG_SETMASK, &signalsBefore, nullptr);
    ProcessState::self()->startThreadPool();
    const bool started = startStartUpThread(start);
    syslog(LOG_ERR, "nuvio-connect: \n\nMAIN TO START NUVIO CONNECT END\n\n");
    if (started) {
        IPCThreadState::self()->joinThreadPool(true);
    }
    shutDown(start);
    return started && !hasNuvioConnectFailed() ? EXIT_SUCCESS : EXIT_FAILURE;
}
