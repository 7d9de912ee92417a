// NuvioConnect: the queue of commands and the thread that works it off.
#include <syslog.h>

#include <chrono>
#include <condition_variable>
#include <exception>
#include <stdexcept>

#include "bridge/bridge_private.h"

namespace android {

FairMutex NuvioConnect::s_queueMutex;
std::mutex NuvioConnect::s_entriesMutex;
std::condition_variable_any NuvioConnect::s_queueCondition;

void NuvioConnect::pushEvent(const std::string& command) {
    const std::scoped_lock lock(s_entriesMutex);
    syslog(LOG_ERR, "NuvioConnect: postEventTo_Nuvio: Queue size before push = %zu\n",
           m_eventQueue.size());
    m_eventQueue.push_back(command);
    syslog(LOG_ERR,
           "NuvioConnect: postEventTo_Nuvio: Pushed event = %s, Queue size after push = %zu\n",
           command.c_str(), m_eventQueue.size());
    m_beventReady = true;
    s_queueCondition.notify_one();
}

void NuvioConnect::handleNuvioPlaybackEvents(const std::stop_token& stop) {
    m_stop = stop;
    while (waitForEvents()) {
        const std::scoped_lock turn(s_queueMutex);
        processBatch();
    }
}

bool NuvioConnect::waitForEvents() {
    std::unique_lock lock(s_entriesMutex);
    s_queueCondition.wait(lock, m_stop, [this] {
        syslog(LOG_ERR, "NuvioConnect: handleNuvioPlaybackEvents: Waking up, m_beventReady = %d",
               static_cast<int>(m_beventReady));
        return m_beventReady;
    });
    return !m_stop.stop_requested();
}

// What is queued when the batch begins; the loop may add to the queue meanwhile.
void NuvioConnect::processBatch() {
    for (size_t left = queueSize(); left > 0 && !m_stop.stop_requested(); --left) {
        m_currentEvent = popEvent();
        try {
            processEvent();
        } catch (const std::exception& error) {
            syslog(LOG_ERR, "NuvioConnect:  %s", error.what());
        }
        m_currentEvent.clear();
    }
    finishBatch();
}

void NuvioConnect::processEvent() {
    if (m_core == nullptr) {
        throw std::runtime_error("NuvConnectCore instance is not created");
    }
    const Action action = parseEvent(m_currentEvent);
    if (action == nullptr) {
        throw std::runtime_error("Unknown Event " + m_currentEvent);
    }
    const nuv_error result = (this->*action)();
    uv_async_send(m_teardown.wakeUp);
    if (result != NUV_ERROR_OK) {
        throw std::runtime_error("Failed to notify nuvio Connect event : " + m_currentEvent +
                                 "Nuvio Error " + nuv_error_to_string(result));
    }
}

size_t NuvioConnect::queueSize() {
    const std::scoped_lock lock(s_entriesMutex);
    return m_eventQueue.size();
}

std::string NuvioConnect::popEvent() {
    const std::scoped_lock lock(s_entriesMutex);
    std::string command = std::move(m_eventQueue.front());
    m_eventQueue.pop_front();
    syslog(LOG_ERR,
           "NuvioConnect: handleNuvioPlaybackEvents: Processing event = %s, Queue size after pop = "
           "%zu\n",
           command.c_str(), m_eventQueue.size());
    return command;
}

void NuvioConnect::finishBatch() {
    const std::scoped_lock lock(s_entriesMutex);
    m_beventReady = !m_eventQueue.empty();
}

bool NuvioConnect::waitUnlessStopped(std::chrono::milliseconds duration) const {
    std::mutex mutex;
    std::condition_variable_any stopped;
    std::unique_lock lock(mutex);
    stopped.wait_for(lock, m_stop, duration, [] { return false; });
    return !m_stop.stop_requested();
}

}  // namespace android
