#include "media/sink/alsa/volume_control.h"

#include <utility>

#include "media/sink/alsa/alsa_utilities.h"
#include "utility/log_delegate.h"

volume_manager_ptr new_volume_manager(const volume_control& control) {
    return volume_manager_ptr(volume_manager_new(control.event_loop, control.device.c_str(),
                                                 control.element.c_str(), 0, control.delegate));
}

namespace {

// Looks without a log line: the absence was logged at the start, and is looked at again at each
// session.
bool is_there(const volume_control& control) {
    mixer_ptr mixer;
    if (open_simple_mixer(mixer, control.device.c_str())) {
        return false;
    }
    snd_mixer_elem_t* element = find_element(mixer.get(), control.element.c_str(), 0);
    return element != nullptr && has_volume_and_switch(element);
}

}  // namespace

renewal renew_volume_manager(volume_manager_ptr& manager, const volume_control& control) {
    if ((manager && !volume_manager_is_lost(manager.get())) || !is_there(control)) {
        return renewal::none;
    }
    volume_manager_ptr renewed = new_volume_manager(control);
    if (!renewed) {
        return renewal::none;
    }
    if (!manager) {
        manager = std::move(renewed);
        app_log(LOG_LEVEL_INFO, "System volume control has been found");
        return renewal::first;
    }
    const uint32_t volume = volume_manager_get_reported_volume(manager.get());
    const bool muted = volume_manager_get_reported_mute_state(manager.get());
    manager = std::move(renewed);
    volume_manager_set_volume(manager.get(), volume);
    volume_manager_set_mute_state(manager.get(), muted);
    app_log(LOG_LEVEL_INFO, "System volume control is back");
    return renewal::again;
}
