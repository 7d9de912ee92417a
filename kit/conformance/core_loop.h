// The loop that the core under test runs on, and the calls into the core.
//
// The thread that makes it is the loop's; everything below is that thread's unless it says more.
#pragma once

#include <sdk/nuvio_connect.h>
#include <uv.h>

#include <chrono>
#include <functional>
#include <string>
#include <thread>

#include "conformance/record.h"

namespace nuvio::kit {

class Loop {
  public:
    Loop(Breaches& breaches, std::chrono::seconds patience);
    // Drains the loop: every handle has been closed.
    ~Loop();
    Loop(const Loop&) = delete;
    Loop& operator=(const Loop&) = delete;

    // Throws Broken when there is no core to be had.
    void make_core(const nuv_connect_config& config);
    void free_core();
    nuv_connect* core() const { return m_core; }
    uv_loop_t* uv() { return &m_loop; }

    // ---- Time: the loop runs only in these.

    // Until the condition holds; throws Broken, "no <what> within 10 s", when it does not.
    void run_until(const std::string& what, const std::function<bool()>& condition);
    void run_for(std::chrono::milliseconds time);

    // ---- Calls

    // On the loop's thread; no delegate may come from inside.
    template <typename Call>
    auto call(const Call& call) {
        ++m_inside;
        const auto result = call(m_core);
        --m_inside;
        return result;
    }
    bool is_inside_a_call() const { return m_inside != 0; }
    // On another thread, as the service's command thread does it, while the loop runs.
    nuv_error command(const std::function<nuv_error(nuv_connect*)>& call);

    // Any thread: whether a delegate may touch anything, false on a wrong one.
    bool enter(const char* what);

  private:
    Breaches& m_breaches;
    const std::chrono::seconds m_patience;
    const std::thread::id m_loop_thread = std::this_thread::get_id();
    uv_loop_t m_loop{};
    uv_timer_t m_tick{};
    uv_async_t m_wake{};
    nuv_connect* m_core = nullptr;
    bool m_freed = false;
    int m_inside = 0;
};

// A method as a delegate, whose context is the object. On a wrong thread nothing is touched.
template <auto kMethod>
struct Delegate;
template <typename Owner, typename Result, typename... Arguments,
          Result (Owner::*kMethod)(Arguments...)>
struct Delegate<kMethod> {
    static Result call(nuv_connect*, Arguments... arguments, void* context) {
        auto* const self = static_cast<Owner*>(context);
        if (self->loop().enter("a delegate")) {
            return (self->*kMethod)(arguments...);
        }
        return Result();
    }
};

}  // namespace nuvio::kit
