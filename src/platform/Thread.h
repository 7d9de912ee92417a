// Thread: a platform thread that runs threadLoop() until it returns false.
//
// The object is reference counted and keeps itself alive while its thread runs, so it must be held
// by an sp<> before run().
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>

#include "platform/RefBase.h"

namespace android {

class Thread : public virtual RefBase {
  public:
    // canCallJava has no meaning outside the platform's own runtime.
    explicit Thread(bool canCallJava = true);

    // Starts the thread: name (cut to 15 bytes by the kernel), nice value (-20 to 19; one that the
    // process may not set is ignored), stack size in bytes (0: the default).
    // Returns 0, or a negative errno value. Once per object.
    virtual int32_t run(const char* name, int32_t priority = 0, size_t stack = 0);

    // Waits until the thread has ended; at once if it never ran. Not from the thread itself.
    void join();

  protected:
    ~Thread() override;

  private:
    // Body, on the new thread; called again as long as it returns true.
    virtual bool threadLoop() = 0;

    struct State;
    std::unique_ptr<State> m_state;
};

}  // namespace android
