// The process's bridge, for the bridge's own files.
#pragma once

namespace android {

class NuvioConnect;

// Null when there is none. On the bridge's own threads, which it outlives; elsewhere with
// NuvioConnect::s_queueMutex held.
NuvioConnect* bridgeInstance();

}  // namespace android
