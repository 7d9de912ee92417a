// NotificationPool: the threads on which the host calls the service's listeners.
//
// One thread a channel: the order within a channel is kept, and a listener that blocks (the bridge
// may hold its queue for seconds) holds up neither the bus nor the other channels.
#pragma once

#include <array>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <deque>
#include <functional>
#include <mutex>
#include <thread>

namespace nuvio::host {

enum class Channel : size_t { source_switch, messages, network };

// Every function may be called from any thread, join and the destructor from none of the pool's.
class NotificationPool {
  public:
    using Task = std::function<void()>;

    NotificationPool() = default;
    ~NotificationPool();
    NotificationPool(const NotificationPool&) = delete;
    NotificationPool& operator=(const NotificationPool&) = delete;

    // Starts the threads; what was posted before is delivered now. A second call does nothing.
    void start();

    // Queues the task; dropped once the pool is stopped. Where 64 wait in the channel, the oldest
    // makes room, with one log line: what is asked for last counts. Never waits for a task.
    void post(Channel channel, Task task);

    // Begins no task any more and drops those that wait. Gives running ones `patience` to end; true
    // when none is left.
    bool stop(std::chrono::milliseconds patience);

    // Stops, and waits for the threads to end.
    void join();

  private:
    static constexpr size_t kChannels = 3;

    struct Lane {
        std::condition_variable wake;
        std::deque<Task> tasks;
        std::thread thread;
        bool running = false;
        bool overflowing = false;
    };

    void serve(Lane& lane);

    std::mutex m_mutex;  // guards everything below
    std::condition_variable m_task_done;
    std::array<Lane, kChannels> m_lanes;
    bool m_started = false;
    bool m_stopped = false;
};

}  // namespace nuvio::host
