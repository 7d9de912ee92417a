#include "device/notification_pool.h"

#include <pthread.h>
#include <syslog.h>

#include <algorithm>
#include <utility>

namespace nuvio::host {

namespace {

// More than a person presses, and taken within a second.
constexpr size_t kMaxWaiting = 64;
constexpr std::array<const char*, 3> kThreadNames = {"host-source", "host-messages",
                                                     "host-network"};

}  // namespace

NotificationPool::~NotificationPool() {
    join();
}

void NotificationPool::start() {
    const std::lock_guard lock(m_mutex);
    if (m_started || m_stopped) {
        return;
    }
    m_started = true;
    for (size_t i = 0; i < kChannels; ++i) {
        m_lanes[i].thread = std::thread([this, i] { serve(m_lanes[i]); });
        pthread_setname_np(m_lanes[i].thread.native_handle(), kThreadNames[i]);
    }
}

void NotificationPool::post(Channel channel, Task task) {
    Task oldest;  // freed without the lock
    const std::lock_guard lock(m_mutex);
    Lane& lane = m_lanes[static_cast<size_t>(channel)];
    if (m_stopped) {
        return;
    }
    if (lane.tasks.size() >= kMaxWaiting) {
        if (!std::exchange(lane.overflowing, true)) {
            syslog(LOG_ERR,
                   "nuvio-host: %zu notifications wait to be taken, older ones are dropped",
                   kMaxWaiting);
        }
        oldest = std::move(lane.tasks.front());
        lane.tasks.pop_front();
    } else {
        lane.overflowing = false;
    }
    lane.tasks.push_back(std::move(task));
    lane.wake.notify_one();
}

bool NotificationPool::stop(std::chrono::milliseconds patience) {
    std::array<std::deque<Task>, kChannels> dropped;  // freed without the lock
    std::unique_lock lock(m_mutex);
    m_stopped = true;
    for (size_t i = 0; i < kChannels; ++i) {
        dropped[i].swap(m_lanes[i].tasks);
        m_lanes[i].wake.notify_all();
    }
    const auto idle = [this] {
        return std::none_of(m_lanes.begin(), m_lanes.end(),
                            [](const Lane& lane) { return lane.running; });
    };
    const bool ended = m_task_done.wait_for(lock, patience, idle);
    lock.unlock();
    return ended;
}

void NotificationPool::join() {
    stop(std::chrono::milliseconds(0));
    for (Lane& lane : m_lanes) {
        std::thread thread;
        {
            const std::lock_guard lock(m_mutex);
            thread.swap(lane.thread);
        }
        if (thread.joinable()) {
            thread.join();
        }
    }
}

void NotificationPool::serve(Lane& lane) {
    std::unique_lock lock(m_mutex);
    while (true) {
        lane.wake.wait(lock, [&] { return m_stopped || !lane.tasks.empty(); });
        if (m_stopped) {
            return;
        }
        Task task = std::move(lane.tasks.front());
        lane.tasks.pop_front();
        lane.running = true;
        lock.unlock();
        task();
        task = nullptr;  // lets go of the listener before the task counts as done
        lock.lock();
        lane.running = false;
        m_task_done.notify_all();
    }
}

}  // namespace nuvio::host
