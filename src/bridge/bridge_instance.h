// The process's bridge, for the bridge's own files.
#pragma once

namespace android {

class NuvioConnect;

// Null when there is none, on the loop's thread also once that has destroyed it. On the bridge's
// own threads without a lock; elsewhere with NuvioConnect::s_queueMutex held.
NuvioConnect* bridgeInstance();

}  // namespace android
