// Binder: look-up of the platform's services by name, and the threads that serve this process's
// own binder objects.
#pragma once

#include "platform/RefBase.h"

namespace android {

// A service's object, of no known interface until that interface's asInterface.
class IBinder : public virtual RefBase {};

class IServiceManager : public virtual RefBase {
  public:
    // The binder registered under `name`, or null. Any thread; does not wait.
    virtual sp<IBinder> getService(const char* name) = 0;
};

// The process's way to the service registry; never null. Any thread.
sp<IServiceManager> defaultServiceManager();

class ProcessState : public virtual RefBase {
  public:
    // One per process, made on first use.
    static sp<ProcessState> self();

    // Starts the threads that deliver the platform's notifications. A second call does nothing.
    // Called by the process's only thread, with SIGTERM and SIGINT as they were found: a platform
    // that takes them in joinThreadPool blocks them here, before it has a thread.
    virtual void startThreadPool() = 0;
};

class IPCThreadState {
  public:
    // The calling thread's view of the pool; never null.
    static IPCThreadState* self();

    // Gives the calling thread to the pool. Returns only when the process is asked to end (by
    // SIGTERM or SIGINT, where the platform takes them with sigwait; else they end it at once); no
    // notification begins any more once it has returned. One that waits for a lock of this process
    // may still be going on; it ends when that lock is let go of.
    virtual void joinThreadPool(bool isMain) = 0;

  protected:
    ~IPCThreadState() = default;
};

}  // namespace android
