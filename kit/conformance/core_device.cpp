#include "conformance/core_device.h"

#include <algorithm>

namespace nuvio::kit {

Device::Device(Breaches& breaches, std::chrono::seconds patience)
    : m_services(m_loop, m_record, breaches),
      m_renderer(m_loop, m_record, breaches),
      m_loop(breaches, patience) {
    nuv_connect_config config{};
    config.interface_version = 1;
    config.device_name = "Conformance";
    config.manufacturer = "Maker";
    config.model = "Model";
    config.serial_number = config.hardware_id = "0001";
    config.app_id = config.app_secret = "app";
    config.renderer_count = 1;
    config.maximum_audio_quality = NUV_AUDIO_QUALITY_HI_RES_LEVEL_3;
    m_services.install(config);
    m_renderer.install(config);
    // renderer_state_delegate stays all zero: the service installs none.
    try {
        m_loop.make_core(config);
    } catch (const Broken&) {
        m_renderer.close_timers();
        throw;
    }
}

Device::~Device() {
    m_loop.free_core();
    m_renderer.close_timers();
}

Event Device::await(const std::string& what, size_t since) {
    m_loop.run_until("\"" + what + "\"", [&] { return m_record.find(what, since) != nullptr; });
    return *m_record.find(what, since);
}

void Device::await_state(nuv_playback_state state, size_t since) {
    const std::string name = nuv_playback_state_to_string(state);
    m_loop.run_until("change to " + name, [&] {
        return std::any_of(m_record.events().begin() + static_cast<std::ptrdiff_t>(since),
                           m_record.events().end(), [&](const Event& event) {
                               return event.what == "state" && event.value == uint64_t{state};
                           });
    });
    nuv_playback_state told{};
    m_loop.command([&](nuv_connect* core) { return nuv_connect_get_playback_state(core, &told); });
    if (told != state) {
        throw Broken("told of " + name + ", asked it says " + nuv_playback_state_to_string(told));
    }
}

void Device::await_disposals() {
    m_loop.run_until("disposal of every stream", [this] { return m_renderer.tracks().empty(); });
}

}  // namespace nuvio::kit
