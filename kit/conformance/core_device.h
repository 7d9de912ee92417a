// A device around the core under test: a loop, the services and the renderer that the core is
// given, and the record of what comes from it. The thread that makes it is the loop's, and all is
// its.
#pragma once

#include <chrono>
#include <cstddef>
#include <string>

#include "conformance/core_loop.h"
#include "conformance/core_renderer.h"
#include "conformance/core_services.h"
#include "conformance/record.h"

namespace nuvio::kit {

class Device {
  public:
    // Makes the core; throws Broken when there is none to be had.
    Device(Breaches& breaches, std::chrono::seconds patience);
    // Frees the core and drains the loop.
    ~Device();
    Device(const Device&) = delete;
    Device& operator=(const Device&) = delete;

    Loop& loop() { return m_loop; }
    Renderer& renderer() { return m_renderer; }
    const Record& record() const { return m_record; }

    // Waits for the first event of this name since the mark.
    Event await(const std::string& what, size_t since);
    // Waits until the core says that it is in this state, and asks it too.
    void await_state(nuv_playback_state state, size_t since);
    // Waits for every stream's disposal.
    void await_disposals();

  private:
    Record m_record;
    Services m_services;
    Renderer m_renderer;
    Loop m_loop;  // drained before its handles in the others go
};

}  // namespace nuvio::kit
