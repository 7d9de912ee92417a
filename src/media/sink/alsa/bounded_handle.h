// Handles of ALSA on which calls are made that may wait for another process (a sound server that
// hangs). Each such call is held to a time: it runs on a thread of its own, and the loop waits for
// that thread a moment only. A device that is slow and well is late then, not lost: the handle is
// back once its call has returned.
//
// Ownership   the handle's owner keeps it while a call has it, so its descriptors stay open. Freed
//             meanwhile, it is closed when the call returns.
// Threads     the loop's only; calls run on another, one at a time on each handle.
// Errors      a call gives its own result, -ETIMEDOUT when it does not return in time, -ENODEV
//             while another one has not returned, -EAGAIN when there is no thread to be had.
#pragma once

#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <optional>
#include <system_error>
#include <thread>
#include <utility>

// How long a call may hold the loop, from the moment at which it is begun.
inline constexpr std::chrono::milliseconds kAlsaPatience{1000};
// How long a busy machine may take to begin it.
inline constexpr std::chrono::milliseconds kAlsaThreadPatience{1000};
// So many calls may stand still before no further device is opened.
inline constexpr int kMaxAlsaCalls = 8;

// How many calls run now, on all handles: on the loop's thread those that stand still.
inline std::atomic<int>& running_alsa_calls() {
    static std::atomic<int> count{0};
    return count;
}

// `Handle` is a std::unique_ptr.
template <typename Handle>
class bounded_handle {
  public:
    bounded_handle() = default;
    explicit bounded_handle(Handle handle) : m_handle(std::move(handle)) {}

    // Null while a call has not returned.
    auto* get() { return is_away() ? nullptr : m_handle.get(); }

    bool is_away() {
        if (!m_away) {
            return false;
        }
        std::unique_lock lock(m_away->mutex);
        if (!m_away->result) {
            return true;
        }
        m_handle = std::move(m_away->handle);
        lock.unlock();
        m_away.reset();
        return false;
    }

    // Null as get() is; the handle is the caller's from then on.
    Handle take() { return is_away() ? Handle() : std::move(m_handle); }
    // Gives up the handle, away or not.
    void reset() {
        m_away.reset();
        m_handle.reset();
    }

    // `call` gets the Handle, and may fill or empty it. What it captures it may use for as long as
    // it runs.
    template <typename Call>
    int call(const Call& call, std::chrono::milliseconds patience = kAlsaPatience) {
        if (is_away()) {
            return -ENODEV;
        }
        const auto record = std::make_shared<away>();
        record->handle = std::move(m_handle);
        running_alsa_calls().fetch_add(1);
        try {
            std::thread([record, call] { run(*record, call); }).detach();
        } catch (const std::system_error&) {
            running_alsa_calls().fetch_sub(1);
            m_handle = std::move(record->handle);
            return -EAGAIN;
        }
        std::unique_lock lock(record->mutex);
        record->changed.wait_for(lock, kAlsaThreadPatience, [&] { return record->has_begun; });
        record->changed.wait_for(lock, patience, [&] { return record->result.has_value(); });
        const std::optional<int> result = record->result;
        if (!result) {
            m_away = record;
            return -ETIMEDOUT;
        }
        m_handle = std::move(record->handle);
        return *result;
    }

  private:
    // Shared with the thread of a call.
    struct away {
        std::mutex mutex;
        std::condition_variable changed;
        bool has_begun = false;
        std::optional<int> result;
        Handle handle;  // the thread's until there is a result
    };

    template <typename Call>
    static void run(away& record, const Call& call) {
        {
            const std::lock_guard lock(record.mutex);
            record.has_begun = true;
            record.changed.notify_one();
        }
        const int result = call(record.handle);
        running_alsa_calls().fetch_sub(1);
        const std::lock_guard lock(record.mutex);
        record.result = result;
        record.changed.notify_one();
    }

    Handle m_handle;
    std::shared_ptr<away> m_away;  // set while a call has not returned
};
