#include "conformance/core_device.h"

#include <algorithm>
#include <utility>

namespace nuvio::kit {

namespace {

constexpr uint64_t kTickMs = 10;

}  // namespace

void Breaches::add(const std::string& rule, const std::string& seen) {
    const std::scoped_lock lock(m_mutex);
    Entry& entry = m_entries[rule];
    if (entry.count++ == 0) {
        entry.first = seen;
    }
}

std::string Breaches::of(const std::string& rule) const {
    const std::scoped_lock lock(m_mutex);
    const auto found = m_entries.find(rule);
    if (found == m_entries.end()) {
        return {};
    }
    const auto& [first, count] = found->second;
    return count == 1 ? first : first + " (" + std::to_string(count) + " times)";
}

// ---- Life ---------------------------------------------------------------------------------------

// A method as a delegate. On a wrong thread nothing is touched.
template <typename Result, typename... Arguments, Result (Device::*kMethod)(Arguments...)>
struct Device::Delegate<kMethod> {
    static Result call(nuv_connect*, Arguments... arguments, void* context) {
        auto* const self = static_cast<Device*>(context);
        if (self->enter("a delegate")) {
            return (self->*kMethod)(arguments...);
        }
        return Result();
    }
};

Device::Device(Breaches& breaches, std::chrono::seconds patience)
    : m_breaches(breaches), m_patience(patience) {
    uv_loop_init(&m_loop);
    for (uv_timer_t* timer : {&m_tick, &m_room, &m_end}) {
        uv_timer_init(&m_loop, timer);
        timer->data = this;
    }
    uv_async_init(&m_loop, &m_wake, [](uv_async_t*) {});
    nuv_error error = NUV_ERROR_INTERNAL;
    m_core = call([&](nuv_connect*) { return nuv_connect_create(&m_loop, config(), &error); });
    if (m_core == nullptr || error != NUV_ERROR_OK) {
        throw Broken(std::string("no core: ") + nuv_error_to_string(error));
    }
}

Device::~Device() {
    m_freed = true;
    if (m_core != nullptr) {
        nuv_connect_free(m_core);
    }
    for (uv_timer_t* timer : {&m_tick, &m_room, &m_end}) {
        uv_close(reinterpret_cast<uv_handle_t*>(timer), nullptr);
    }
    uv_close(reinterpret_cast<uv_handle_t*>(&m_wake), nullptr);
    const auto end = std::chrono::steady_clock::now() + m_patience;
    while (uv_run(&m_loop, UV_RUN_NOWAIT) != 0 && std::chrono::steady_clock::now() < end) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    if (uv_loop_close(&m_loop) != 0) {
        m_breaches.add("free", "a handle of the core's stays on the loop");
    }
}

nuv_connect_config Device::config() {
    nuv_connect_config config{};
    config.interface_version = 1;
    config.device_name = "Conformance";
    config.manufacturer = "Maker";
    config.model = "Model";
    config.serial_number = config.hardware_id = "0001";
    config.app_id = config.app_secret = "app";
    config.renderer_count = 1;
    config.maximum_audio_quality = NUV_AUDIO_QUALITY_HI_RES_LEVEL_3;
    config.advertising_delegate = {this, Delegate<&Device::on_advertise>::call,
                                   Delegate<&Device::on_stop_advertising>::call};
    config.local_config_server_delegate = {this, Delegate<&Device::on_server_start>::call,
                                           Delegate<&Device::on_server_stop>::call};
    config.audio_stream_delegate = {this,
                                    Delegate<&Device::on_started>::call,
                                    Delegate<&Device::on_data>::call,
                                    Delegate<&Device::on_metadata>::call,
                                    Delegate<&Device::on_finished>::call,
                                    Delegate<&Device::on_seeked>::call,
                                    Delegate<&Device::on_dispose>::call};
    config.media_delegate = {this,
                             Delegate<&Device::on_initiate>::call,
                             Delegate<&Device::on_pause>::call,
                             Delegate<&Device::on_resume>::call,
                             Delegate<&Device::on_stop>::call,
                             Delegate<&Device::on_seek_in_progress>::call,
                             Delegate<&Device::on_position>::call,
                             Delegate<&Device::on_volume>::call,
                             Delegate<&Device::on_mute>::call,
                             Delegate<&Device::on_state>::call,
                             Delegate<&Device::on_quality>::call,
                             Delegate<&Device::on_controls>::call,
                             Delegate<&Device::on_actions>::call};
    // renderer_state_delegate stays all zero: the service installs none.
    return config;
}

// ---- Time and calls -----------------------------------------------------------------------------

void Device::run_until(const std::string& what, const std::function<bool()>& condition) {
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

void Device::run_for(std::chrono::milliseconds time) {
    const auto end = std::chrono::steady_clock::now() + time;
    run_until("end", [end] { return std::chrono::steady_clock::now() >= end; });
}

nuv_error Device::command(const std::function<nuv_error(nuv_connect*)>& call) {
    auto result = std::async(std::launch::async, [&] {
        const auto start = std::chrono::steady_clock::now();
        const nuv_error error = call(m_core);
        const auto took = std::chrono::steady_clock::now() - start;
        uv_async_send(&m_wake);  // the service does so after each command
        return std::pair(error, std::chrono::duration_cast<std::chrono::microseconds>(took));
    });
    run_until("return of a control call", [&result] {
        return result.wait_for(std::chrono::seconds(0)) == std::future_status::ready;
    });
    const auto [error, took] = result.get();
    m_longest_command = std::max(m_longest_command, took);
    return error;
}

// False on a wrong thread.
bool Device::enter(const char* what) {
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

// ---- Events -------------------------------------------------------------------------------------

void Device::note(const char* what, uint64_t id, uint64_t value) {
    if (m_inside != 0) {
        m_breaches.add("not-inside", std::string("... which was \"") + what + "\"");
    }
    m_events.push_back({what, id, value});
}

const Event* Device::find(const std::string& what, size_t since) const {
    const auto found =
        std::find_if(m_events.begin() + static_cast<std::ptrdiff_t>(since), m_events.end(),
                     [&](const Event& event) { return event.what == what; });
    return found == m_events.end() ? nullptr : &*found;
}

size_t Device::count(const std::string& what, size_t since) const {
    return static_cast<size_t>(
        std::count_if(m_events.begin() + static_cast<std::ptrdiff_t>(since), m_events.end(),
                      [&](const Event& event) { return event.what == what; }));
}

Event Device::await(const std::string& what, size_t since) {
    run_until("\"" + what + "\"", [&] { return find(what, since) != nullptr; });
    return *find(what, since);
}

void Device::await_state(State state, size_t since) {
    const std::string name = nuv_playback_state_to_string(state);
    run_until("change to " + name, [&] {
        return std::any_of(m_events.begin() + static_cast<std::ptrdiff_t>(since), m_events.end(),
                           [&](const Event& event) {
                               return event.what == "state" && event.value == uint64_t{state};
                           });
    });
    State told{};
    command([&](nuv_connect* core) { return nuv_connect_get_playback_state(core, &told); });
    if (told != state) {
        throw Broken("told of " + name + ", asked it says " + nuv_playback_state_to_string(told));
    }
}

}  // namespace nuvio::kit
