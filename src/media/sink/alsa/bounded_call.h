// Calls of ALSA that may wait for another process (a sound server that hangs), held to a time: each
// runs on a thread of its own, and the loop waits for that thread a moment only.
//
// Threads     called on the loop's; the call and, where it came too late, the end of the handle run
// on
//             the other thread, which nobody waits for any longer.
#pragma once

#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <system_error>
#include <thread>
#include <utility>

// How long a call may hold the loop, from the moment at which it is begun.
inline constexpr std::chrono::milliseconds kAlsaCallPatience{100};
// The same for the opening of a device, which may have to be woken.
inline constexpr std::chrono::milliseconds kAlsaOpenPatience{1000};
// How long a busy machine may take to begin it.
inline constexpr std::chrono::milliseconds kAlsaThreadPatience{1000};

// Runs `call` with the handle. Its result; -ETIMEDOUT when it did not return in time: the handle is
// then null here and is freed over there when the call returns, but not before `let_go` has: that
// is where descriptors of the handle are forgotten.
template <typename Handle, typename Call>
int bounded_call(
    Handle& handle, const Call& call, std::chrono::milliseconds patience = kAlsaCallPatience,
    const std::function<void()>& let_go = [] {}) {
    struct shared {
        std::mutex mutex;
        std::condition_variable changed;
        bool has_begun = false;
        std::optional<int> result;
        bool is_given_up = false;
        Handle handle;
    };
    const auto record = std::make_shared<shared>();
    record->handle = std::move(handle);
    const auto run = [record, call] {
        {
            const std::lock_guard lock(record->mutex);
            record->has_begun = true;
            record->changed.notify_one();
        }
        const int result = call(record->handle);
        Handle unclaimed;
        const std::lock_guard lock(record->mutex);
        record->result = result;
        if (record->is_given_up) {
            unclaimed = std::move(record->handle);
        }
        record->changed.notify_one();
    };
    try {
        std::thread(run).detach();
    } catch (const std::system_error&) {
        run();
    }
    std::unique_lock lock(record->mutex);
    record->changed.wait_for(lock, kAlsaThreadPatience, [&] { return record->has_begun; });
    record->changed.wait_for(lock, patience, [&] { return record->result.has_value(); });
    const std::optional<int> result = record->result;
    if (!result) {
        record->is_given_up = true;
        let_go();
        return -ETIMEDOUT;
    }
    handle = std::move(record->handle);
    return *result;
}
