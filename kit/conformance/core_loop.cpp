#include "conformance/core_loop.h"

#include <future>

namespace nuvio::kit {

namespace {

constexpr uint64_t kTickMs = 10;

}  // namespace

Loop::Loop(Breaches& breaches, std::chrono::seconds patience)
    : m_breaches(breaches), m_patience(patience) {
    uv_loop_init(&m_loop);
    uv_timer_init(&m_loop, &m_tick);
    uv_async_init(&m_loop, &m_wake, [](uv_async_t*) {});
}

Loop::~Loop() {
    uv_close(reinterpret_cast<uv_handle_t*>(&m_tick), nullptr);
    uv_close(reinterpret_cast<uv_handle_t*>(&m_wake), nullptr);
    const auto end = std::chrono::steady_clock::now() + m_patience;
    while (uv_run(&m_loop, UV_RUN_NOWAIT) != 0 && std::chrono::steady_clock::now() < end) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    if (uv_loop_close(&m_loop) != 0) {
        m_breaches.add("free", "a handle of the core's stays on the loop");
    }
}

void Loop::make_core(const nuv_connect_config& config) {
    nuv_error error = NUV_ERROR_INTERNAL;
    m_core = call([&](nuv_connect*) { return nuv_connect_create(&m_loop, config, &error); });
    if (m_core == nullptr || error != NUV_ERROR_OK) {
        throw Broken(std::string("no core: ") + nuv_error_to_string(error));
    }
}

void Loop::free_core() {
    m_freed = true;
    if (m_core != nullptr) {
        nuv_connect_free(m_core);
    }
}

// ---- Time and calls -----------------------------------------------------------------------------

void Loop::run_until(const std::string& what, const std::function<bool()>& condition) {
    const auto end = std::chrono::steady_clock::now() + m_patience;
    // Repeated: one that is due before the loop waits would leave it waiting for ever.
    uv_timer_start(
        &m_tick, [](uv_timer_t*) {}, kTickMs, kTickMs);
    while (!condition() && std::chrono::steady_clock::now() < end) {
        uv_run(&m_loop, UV_RUN_ONCE);
    }
    uv_timer_stop(&m_tick);
    if (!condition()) {
        throw Broken("no " + what + " within " + std::to_string(m_patience.count()) + " s");
    }
}

void Loop::run_for(std::chrono::milliseconds time) {
    const auto end = std::chrono::steady_clock::now() + time;
    run_until("end", [end] { return std::chrono::steady_clock::now() >= end; });
}

nuv_error Loop::command(const std::function<nuv_error(nuv_connect*)>& call) {
    auto result = std::async(std::launch::async, [&] {
        const nuv_error error = call(m_core);
        uv_async_send(&m_wake);  // the service does so after each command
        return error;
    });
    run_until("return of a control call", [&result] {
        return result.wait_for(std::chrono::seconds(0)) == std::future_status::ready;
    });
    return result.get();
}

bool Loop::enter(const char* what) {
    if (std::this_thread::get_id() != m_loop_thread) {
        m_breaches.add("loop-thread", std::string(what) + " on another thread");
        return false;
    }
    if (m_freed) {
        m_breaches.add("free", std::string(what) + " after the core was freed");
        return false;
    }
    if (m_inside != 0) {
        m_breaches.add("not-inside", std::string(what) + " from inside a call");
    }
    return true;
}

}  // namespace nuvio::kit
