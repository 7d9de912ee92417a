#include "device/notification_pool.h"

#include <pthread.h>
#include <syslog.h>

#include <algorithm>
#include <cstddef>
#include <utility>

namespace nuvio::host {

namespace {

// More than a person presses, and taken within a second.
constexpr std::ptrdiff_t kMaxWaiting = 64;
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

void NotificationPool::post(Channel channel, Task task, Waiting waiting) {
    Task replaced;  // freed without the lock
    const std::lock_guard lock(m_mutex);
    Lane& lane = m_lanes[static_cast<size_t>(channel)];
    if (m_stopped) {
        return;
    }
    if (waiting == Waiting::latest) {
        const auto value = std::ranges::find(lane.tasks, Waiting::latest, &Entry::waiting);
        if (value != lane.tasks.end()) {
            replaced = std::exchange(value->task, std::move(task));
            return;
        }
    } else if (waiting == Waiting::limited) {
        replaced = make_room(lane);
    }
    lane.tasks.push_back({std::move(task), waiting});
    lane.wake.notify_one();
}

// What had to go for one more, if anything.
NotificationPool::Task NotificationPool::make_room(Lane& lane) {
    const bool is_full =
        std::ranges::count(lane.tasks, Waiting::limited, &Entry::waiting) >= kMaxWaiting;
    if (is_full && !lane.overflowing) {
        syslog(LOG_ERR, "nuvio-host: %td notifications wait to be taken, older ones are dropped",
               kMaxWaiting);
    }
    lane.overflowing = is_full;
    if (!is_full) {
        return nullptr;
    }
    const auto oldest = std::ranges::find(lane.tasks, Waiting::limited, &Entry::waiting);
    Task dropped = std::move(oldest->task);
    lane.tasks.erase(oldest);
    return dropped;
}

bool NotificationPool::stop(std::chrono::milliseconds patience) {
    std::array<std::deque<Entry>, kChannels> dropped;  // freed without the lock
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
        Task task = std::move(lane.tasks.front().task);
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
