#include "bridge/host_hooks.h"
#include "renderer/journal.h"

bool host_allow_source() {
    journal::add("host allow_source");
    return journal::host_allows_source;
}
void host_report_playback_position(uint64_t position_ms) {
    journal::add("host position " + std::to_string(position_ms));
}
void host_report_mute_state() {}
void host_report_volume() {}
void host_report_shuffle_repeat() {}
void host_report_playback_status(int status) {
    journal::add("host playback_status " + std::to_string(status));
}
