// What the start-up pass waits for, and what the platform's notifications change.
#pragma once

#include <condition_variable>
#include <mutex>
#include <string>

namespace android {

// One per process, never destroyed. Every field is read and written with `mutex` held.
//
// Lock order: this mutex first, then the bridge's queue mutex.
struct NetworkState {
    std::condition_variable changed;
    std::mutex mutex;
    bool connected = false;      // as the latest event of either interface says
    bool stopping = false;       // the process ends: a start-up pass that waits gives up
    std::string lastDeviceName;  // seen in the latest device-name notification

    // Created by whoever comes first. Any thread.
    static NetworkState& get();
};

}  // namespace android
