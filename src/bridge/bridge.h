// The bridge between the platform and the SDK, as the rest of the service sees it: hand over the
// settings, start it, post commands to it, stop it. One bridge per process.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

namespace android {

// Entries of the device-info array.
enum DeviceInfoIndex : size_t {
    DEVICE_INFO_HTTP_PORT,  // decimal
    DEVICE_INFO_APP_ID,
    DEVICE_INFO_APP_SECRET,
    DEVICE_INFO_DEVICE_NAME,
    DEVICE_INFO_MANUFACTURER,
    DEVICE_INFO_MODEL,
    DEVICE_INFO_LOG_LEVEL,  // decimal; 0, empty or no number: the SDK's own lines are not shown
    DEVICE_INFO_OUTPUT_DEVICE,
    DEVICE_INFO_VOLUME_ELEMENT,
    DEVICE_INFO_SERIAL_NUMBER,
    DEVICE_INFO_VOLUME_DEVICE,
    DEVICE_INFO_COUNT
};

// Creates the bridge if there is none and gives it a copy of the array. Before the bridge's thread
// is started. With fewer than DEVICE_INFO_COUNT entries the bridge can't be initialised (logged).
void setDeviceInfo(const std::vector<std::string>& info);

// Starts the bridge's thread, which runs nuvioConnectThreadFunction, and returns at once. Once,
// until stopNuvioConnect.
void startNuvioConnectThread();

// True when the system had no thread for the bridge: it asked the process to end (SIGTERM), and the
// end is a failure. Any thread.
bool hasNuvioConnectFailed();

// Body of the bridge's thread: makes the device modules, the SDK core and the command thread, then
// runs the default loop. Returns when the bridge is stopped, or when the loop has nothing to do
// because the bridge could not be initialised; commands then go on being answered, as failing.
void nuvioConnectThreadFunction();

// Queues a command for the command thread. Any thread, at any time; without a bridge the command is
// dropped (logged). While the command thread works on a batch, which may take seconds, the caller
// waits for the end of the batch; the bridge's own two threads never wait here.
void postEventTo_Nuvio(const std::string& command);

// Tells the command thread to stop and returns at once: its waits are cut short, so that whoever
// waits to post goes on. Any thread; stopNuvioConnect must follow.
void requestStopNuvioConnect();

// Ends the bridge and returns when nothing of it is left: the command thread first (a command in
// work is finished, or dropped in its delay; queued ones are dropped), then, on the loop's own
// thread, the modules, every handle and the loop. Not on a thread of the bridge, and not
// concurrently with setDeviceInfo or startNuvioConnectThread. Without a bridge it does nothing.
void stopNuvioConnect();

}  // namespace android
