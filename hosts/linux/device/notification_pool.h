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

// What becomes of a task that has to wait.
enum class Waiting {
    // Where 64 such ones wait in its channel, the oldest makes room, with one log line: what is
    // asked for last counts.
    limited,
    // It tells a value: it takes the place of the one that waits in its channel.
    latest,
    // It is told whatever happens; whoever posts it sees to it that few wait.
    certain,
};

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

    // Queues the task; dropped once the pool is stopped. Never waits for a task.
    void post(Channel channel, Task task, Waiting waiting = Waiting::limited);

    // Begins no task any more and drops those that wait. Gives running ones `patience` to end; true
    // when none is left.
    bool stop(std::chrono::milliseconds patience);

    // Stops, and waits for the threads to end.
    void join();

  private:
    static constexpr size_t kChannels = 3;

    struct Entry {
        Task task;
        Waiting waiting;
    };
    struct Lane {
        std::condition_variable wake;
        std::deque<Entry> tasks;
        std::thread thread;
        bool running = false;
        bool overflowing = false;
    };

    static Task make_room(Lane& lane);
    void serve(Lane& lane);

    std::mutex m_mutex;  // guards everything below
    std::condition_variable m_task_done;
    std::array<Lane, kChannels> m_lanes;
    bool m_started = false;
    bool m_stopped = false;
};

}  // namespace nuvio::host
