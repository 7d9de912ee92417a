#include "media/sink/alsa/volume_control.h"

#include <utility>

#include "utility/log_delegate.h"

volume_manager_ptr new_volume_manager(const volume_control& control) {
    return volume_manager_ptr(volume_manager_new(control.event_loop, control.device.c_str(),
                                                 control.element.c_str(), 0, control.delegate));
}

void renew_lost_volume_manager(volume_manager_ptr& manager, const volume_control& control) {
    if (!manager || !volume_manager_is_lost(manager.get())) {
        return;
    }
    volume_manager_ptr renewed = new_volume_manager(control);
    if (!renewed) {
        return;
    }
    const uint32_t volume = volume_manager_get_reported_volume(manager.get());
    const bool muted = volume_manager_get_reported_mute_state(manager.get());
    manager = std::move(renewed);
    volume_manager_set_volume(manager.get(), volume);
    volume_manager_set_mute_state(manager.get(), muted);
    app_log(LOG_LEVEL_INFO, "System volume control is back");
}
